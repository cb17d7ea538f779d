#include "config.h"

#include <iniparser.h>
#include <strings.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "logger.h"

namespace {

struct dictionary_deleter {
    void operator()(dictionary* d) const { iniparser_freedict(d); }
};
using dictionary_ptr = std::unique_ptr<dictionary, dictionary_deleter>;

opt_text get_text(const dictionary* d, const std::string& key) {
    if (const char* v = iniparser_getstring(d, key.c_str(), nullptr)) return std::string(v);
    return std::nullopt;
}

void read_text(const dictionary* d, const char* key, opt_text& out) {
    if (opt_text v = get_text(d, key)) out = std::move(v);
}

void read_text(const dictionary* d, const char* key, std::string& out) {
    if (opt_text v = get_text(d, key)) out = std::move(*v);
}

// iniparser's own complaints (syntax errors) go to the log; a file that cannot
// be opened is reported by the caller.
int iniparser_complaint(const char* format, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, format);
    vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    if (strncmp(buf, "iniparser: cannot open", 22) == 0) return 0;
    size_t len = strlen(buf);
    while (len > 0 && (buf[len - 1] == '\n' || buf[len - 1] == '\r')) buf[--len] = '\0';
    for (char* p = buf; *p; ++p)
        if (*p == '\n') *p = ' ';
    LOG(L_ERROR, "Configuration file: %s", buf);
    return 0;
}

int read_port(const dictionary* d, const char* key, int def) {
    int v = iniparser_getint(d, key, def);
    if (v < 1 || v > 65535)
        LOG(L_WARNING, "%s = %d is not a TCP port (1-65535); the connection will fail", key, v);
    return v;
}

// A number of seconds: 0 when absent; anything but a positive whole number
// (up to a day) is logged and taken as absent.
int read_whole_seconds(const dictionary* d, const std::string& key) {
    const char* text = iniparser_getstring(d, key.c_str(), nullptr);
    if (!text) return 0;
    char* end = nullptr;
    const long v = strtol(text, &end, 10);
    if (end != text && *end == '\0' && v >= 1 && v <= 86400) return static_cast<int>(v);
    LOG(L_WARNING, "%s = \"%s\" is not a number of seconds (1-86400): ignored", key.c_str(), text);
    return 0;
}

// A number of seconds that may also be 0 (off): -1 when absent or not such
// a number (logged as read_whole_seconds() does).
int read_seconds_or_off(const dictionary* d, const std::string& key) {
    const char* text = iniparser_getstring(d, key.c_str(), nullptr);
    if (!text) return -1;
    if (strcmp(text, "0") == 0) return 0;
    const int v = read_whole_seconds(d, key);
    return v > 0 ? v : -1;
}

// A time in seconds (fractions allowed) as milliseconds; `def` when absent or
// not a positive number.
int read_seconds(const dictionary* d, const char* key, int def) {
    const char* text = iniparser_getstring(d, key, nullptr);
    if (!text) return def;
    char* end = nullptr;
    const double seconds = strtod(text, &end);
    if (end == text || *end != '\0' || !(seconds > 0) || seconds > 3600) {
        LOG(L_WARNING, "%s = \"%s\" is no number of seconds (above 0, at most 3600): %g used", key,
            text, def / 1000.0);
        return def;
    }
    const int ms = static_cast<int>(seconds * 1000 + 0.5);
    return ms > 0 ? ms : 1;
}

// A whole number in [low, high]; `def` when absent, and with a WARNING when
// it is anything else.
int read_int_in(const dictionary* d, const char* key, int low, int high, int def) {
    const char* text = iniparser_getstring(d, key, nullptr);
    if (!text) return def;
    char* end = nullptr;
    const long v = strtol(text, &end, 10);
    if (end != text && *end == '\0' && v >= low && v <= high) return static_cast<int>(v);
    LOG(L_WARNING, "%s = \"%s\" is not a whole number from %d to %d: %d used", key, text, low, high,
        def);
    return def;
}

// pms:plus_prefix: digits only, at most 8.
std::string read_plus_prefix(const dictionary* d) {
    const char* text = iniparser_getstring(d, "pms:plus_prefix", nullptr);
    if (!text) return "00";
    const std::string v = text;
    if (v.size() <= 8 && v.find_first_not_of("0123456789") == std::string::npos) return v;
    LOG(L_WARNING, "pms:plus_prefix = \"%s\" is not up to 8 digits: \"00\" used", text);
    return "00";
}

// Every section with a dbdriver key, in file order.
std::vector<db_settings> read_databases(const dictionary* d) {
    std::vector<db_settings> out;
    int n = iniparser_getnsec(d);
    for (int i = 0; i < n; ++i) {
        const char* section = iniparser_getsecname(d, i);
        if (!section) continue;
        const std::string prefix = std::string(section) + ":";
        opt_text driver = get_text(d, prefix + "dbdriver");
        if (!driver) continue;
        db_settings s;
        s.section = section;
        s.driver = *driver;
        s.date_format = get_text(d, prefix + "date_format");
        s.time_format = get_text(d, prefix + "time_format");
        s.host = get_text(d, prefix + "host");
        s.user = get_text(d, prefix + "user");
        s.password = get_text(d, prefix + "password");
        s.database = get_text(d, prefix + "database");
        s.synchronous = get_text(d, prefix + "synchronous");
        if (iniparser_find_entry(d, (prefix + "port").c_str()))
            s.port = iniparser_getint(d, (prefix + "port").c_str(), 0);
        if (int v = read_whole_seconds(d, prefix + "connect_timeout")) s.connect_timeout = v;
        if (int v = read_whole_seconds(d, prefix + "read_timeout")) s.read_timeout = v;
        if (int v = read_whole_seconds(d, prefix + "write_timeout")) s.write_timeout = v;
        out.push_back(std::move(s));
    }
    return out;
}

constexpr int max_rooms = 10000;  // rooms:room1 .. rooms:room9999

// [wakeup]: the dialer's settings (their limits are checked by -t).
wakeup_settings read_wakeup(const dictionary* d) {
    wakeup_settings w;
    w.call = iniparser_getboolean(d, "wakeup:call", 0) != 0;
    read_text(d, "wakeup:channel", w.channel);
    read_text(d, "wakeup:context", w.context);
    read_text(d, "wakeup:exten", w.exten);
    read_text(d, "wakeup:priority", w.priority);
    read_text(d, "wakeup:caller_id", w.caller_id);
    w.ring_time = iniparser_getint(d, "wakeup:ring_time", w.ring_time);
    w.attempts = iniparser_getint(d, "wakeup:attempts", w.attempts);
    w.retry_interval = iniparser_getint(d, "wakeup:retry_interval", w.retry_interval);
    w.late_limit = iniparser_getint(d, "wakeup:late_limit", w.late_limit);
    w.snooze_window = iniparser_getint(d, "wakeup:snooze_window", w.snooze_window);
    read_text(d, "wakeup:alert", w.alert);
    return w;
}

rooms_settings read_rooms(const dictionary* d) {
    rooms_settings r;
    r.type = get_text(d, "rooms:type");
    for (int n = 1; n < max_rooms; ++n) {
        char key[32];
        snprintf(key, sizeof key, "rooms:room%d", n);
        opt_text room = get_text(d, key);
        if (!room) break;
        r.rooms.push_back(std::move(*room));
    }
    r.ldap_host = get_text(d, "rooms:ldap_host");
    r.ldap_user = get_text(d, "rooms:ldap_user");
    r.ldap_pass = get_text(d, "rooms:ldap_pass");
    r.ldap_base = get_text(d, "rooms:ldap_base");
    r.ldap_scope = get_text(d, "rooms:ldap_scope");
    r.ldap_filter = get_text(d, "rooms:ldap_filter");
    r.ldap_attribute = get_text(d, "rooms:ldap_attribute");
    r.ldap_port = iniparser_getint(d, "rooms:ldap_port", 389);
    r.ldap_version = iniparser_getint(d, "rooms:ldap_version", 2);
    return r;
}

// [fixes]: every key yes/no, `all` the default of the others.
fixes_settings read_fixes(const dictionary* d) {
    const bool all = iniparser_getboolean(d, "fixes:all", 0) != 0;
    fixes_settings f;
    const struct {
        const char* key;
        bool& value;
    } keys[] = {{"link_end", f.link_end},
                {"ordered_records", f.ordered_records},
                {"signals", f.signals},
                {"reload", f.reload},
                {"exit_status", f.exit_status},
                {"quiet", f.quiet},
                {"private_files", f.private_files},
                {"escape", f.escape},
                {"numbers", f.numbers},
                {"dates", f.dates},
                {"percent", f.percent},
                {"dnd_keys", f.dnd_keys},
                {"states_file", f.states_file},
                {"posting", f.posting},
                {"mysql", f.mysql},
                {"manager_events", f.manager_events},
                {"deadlines", f.deadlines},
                {"room_numbers", f.room_numbers}};
    for (const auto& k : keys) {
        k.value = iniparser_getboolean(d, ("fixes:" + std::string(k.key)).c_str(), all) != 0;
        f.any = f.any || k.value;
    }

    int n = iniparser_getsecnkeys(d, "fixes");
    if (n <= 0) return f;
    std::vector<const char*> names(static_cast<size_t>(n));
    if (!iniparser_getseckeys(d, "fixes", names.data())) return f;
    for (const char* full : names) {
        const char* key = full + strlen("fixes:");
        bool known = strcmp(key, "all") == 0;
        for (const auto& k : keys) known = known || strcmp(key, k.key) == 0;
        if (!known) f.unknown.emplace_back(key);
    }
    return f;
}

// [extensions]: "101 = 2101, 2102", one line per room.
// A comma-separated list, each item trimmed; empty items are left out.
std::vector<std::string> split_list(const char* value) {
    std::vector<std::string> list;
    std::string item;
    for (const char* c = value;; ++c) {
        if (*c == ',' || *c == '\0') {
            const size_t b = item.find_first_not_of(" \t");
            if (b != std::string::npos)
                list.push_back(item.substr(b, item.find_last_not_of(" \t") - b + 1));
            item.clear();
            if (*c == '\0') break;
        } else {
            item += *c;
        }
    }
    return list;
}

std::map<std::string, std::vector<std::string>> read_extensions(const dictionary* d) {
    std::map<std::string, std::vector<std::string>> out;
    const int n = iniparser_getsecnkeys(d, "extensions");
    if (n <= 0) return out;
    std::vector<const char*> names(static_cast<size_t>(n));
    if (!iniparser_getseckeys(d, "extensions", names.data())) return out;
    for (const char* full : names)
        out[full + strlen("extensions:")] = split_list(iniparser_getstring(d, full, ""));
    return out;
}

// [posting] and [dialcodes]: which calls are posted and when, and the
// Manager UserEvents of the room phone.
void read_posting(const dictionary* d, config& cfg) {
    posting_settings& p = cfg.posting;
    p.post_unanswered = iniparser_getboolean(d, "posting:post_unanswered", 1) != 0;
    if (const char* text = iniparser_getstring(d, "posting:min_billsec", nullptr)) {
        char* end = nullptr;
        const long v = strtol(text, &end, 10);
        if (end != text && *end == '\0' && v >= 0 && v <= 86400)
            p.min_billsec = static_cast<int>(v);
        else
            LOG(L_WARNING,
                "posting:min_billsec = \"%s\" is not a number of seconds (0-86400): 0 used", text);
    }
    if (const char* text = iniparser_getstring(d, "posting:free_numbers", nullptr)) {
        std::vector<std::string> bad;
        p.free_numbers = parse_free_numbers(split_list(text), &bad);
        for (const std::string& b : bad)
            LOG(L_WARNING,
                "posting:free_numbers: \"%s\" is no number, prefix (\"0800*\"), range "
                "(\"100-199\") or \"rooms\": ignored",
                b.c_str());
    }
    p.immediate = iniparser_getboolean(d, "posting:immediate", 0) != 0;
    dialcodes_settings& dc = cfg.dialcodes;
    for (auto [key, out] : {std::pair{"dialcodes:minibar_event", &dc.minibar_event},
                            std::pair{"dialcodes:maid_event", &dc.maid_event},
                            std::pair{"dialcodes:wakeup_event", &dc.wakeup_event},
                            std::pair{"dialcodes:wakeup_clear_event", &dc.wakeup_clear_event},
                            std::pair{"dialcodes:guest_service_event", &dc.guest_service_event}}) {
        read_text(d, key, *out);
        if (*out && out->value().empty()) out->reset();
    }
    dc.voicemail = iniparser_getboolean(d, "dialcodes:voicemail", 0) != 0;
}

// [rating]: the tariff file and how its prices become amounts. A relative
// file name is taken from the folder of the configuration file.
void read_rating(const dictionary* d, const std::string& path, config& cfg) {
    rating_settings& r = cfg.rating;
    if (opt_text file = get_text(d, "rating:tariffs"); file && !file->empty()) {
        const size_t slash = path.rfind('/');
        if ((*file)[0] != '/' && slash != std::string::npos)
            file = path.substr(0, slash + 1) + *file;
        r.tariffs = std::move(file);
    }
    if (const char* text = iniparser_getstring(d, "rating:decimals", nullptr)) {
        if (strlen(text) == 1 && text[0] >= '0' && text[0] <= '4')
            r.rule.decimals = text[0] - '0';
        else
            LOG(L_WARNING, "rating:decimals = \"%s\" is not 0-4: 2 used", text);
    }
    if (const char* text = iniparser_getstring(d, "rating:markup", nullptr)) {
        if (std::optional<int64_t> v = parse_scaled(text, 2, 100000))
            r.rule.markup_hundredths = static_cast<int>(*v);
        else
            LOG(L_WARNING,
                "rating:markup = \"%s\" is not a percent of at most 2 decimals (0-1000): 0 used",
                text);
    }
    if (const char* text = iniparser_getstring(d, "rating:unrated", nullptr)) {
        if (strcasecmp(text, "zero") == 0)
            r.unrated_zero = true;
        else if (strcasecmp(text, "duration") != 0)
            LOG(L_WARNING, "rating:unrated = \"%s\" is neither duration nor zero: duration used",
                text);
    }
    if (const char* text = iniparser_getstring(d, "rating:keep_days", nullptr)) {
        if (std::optional<int64_t> v = parse_scaled(text, 0, 36500); v && *v >= 1)
            r.keep_days = static_cast<int>(*v);
        else
            LOG(L_WARNING, "rating:keep_days = \"%s\" is not a number of days (1-36500): 90 used",
                text);
    }
}

// A fresh driver list: the records of this load, newest first, then the
// records of earlier loads that no new record shadows.
std::vector<dbdriver_ptr> merge_drivers(std::vector<dbdriver_ptr> fresh,
                                        const std::vector<dbdriver_ptr>& old) {
    for (const dbdriver_ptr& drv : old)
        if (!find_dbdriver_in(fresh, drv->name)) fresh.push_back(drv);
    return fresh;
}

}  // namespace

namespace {

bool all_digits(std::string_view s) {
    return !s.empty() &&
           std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::optional<free_number> parse_one(const std::string& text) {
    if (text.empty()) return std::nullopt;
    // A pattern holds no blank and no character that a dialled number never has.
    for (char c : text)
        if (static_cast<unsigned char>(c) <= ' ' || c == ',' || c == '|') return std::nullopt;
    if (strcasecmp(text.c_str(), "rooms") == 0) return free_number{free_number::rooms, "", ""};
    if (text.back() == '*') {
        std::string prefix = text.substr(0, text.size() - 1);
        if (prefix.empty()) return std::nullopt;
        return free_number{free_number::prefix, std::move(prefix), ""};
    }
    const size_t dash = text.find('-');
    if (dash != std::string::npos) {
        std::string low = text.substr(0, dash), high = text.substr(dash + 1);
        if (!all_digits(low) || !all_digits(high) || low.size() != high.size() || low > high)
            return std::nullopt;
        return free_number{free_number::range, std::move(low), std::move(high)};
    }
    return free_number{free_number::exact, text, ""};
}

}  // namespace

std::vector<free_number> parse_free_numbers(const std::vector<std::string>& patterns,
                                            std::vector<std::string>* bad) {
    std::vector<free_number> out;
    for (const std::string& text : patterns) {
        if (std::optional<free_number> p = parse_one(text))
            out.push_back(std::move(*p));
        else if (bad)
            bad->push_back(text);
    }
    return out;
}

bool matches_free_number(const free_number& p, std::string_view number) {
    switch (p.kind) {
        case free_number::exact:
            return number == p.low;
        case free_number::prefix:
            return number.starts_with(p.low);
        case free_number::range:
            // Same length and digits only: text order is number order.
            return number.size() == p.low.size() && all_digits(number) && number >= p.low &&
                   number <= p.high;
        case free_number::rooms:
            return false;
    }
    return false;
}

bool config::uses_actions() const {
    auto is_action = [](const std::string& service) { return service.rfind("ami:", 0) == 0; };
    for (const opt_text* service :
         {&checkin, &checkout, &guest_change, &room_move, &bareon, &bareoff, &dndon, &dndoff,
          &wakeup_set, &wakeup_clear, &billok, &mwi_on, &mwi_off})
        if (*service && is_action(**service)) return true;
    for (const auto& [key, steps] : more_steps)
        for (const std::string& step : steps)
            if (is_action(step)) return true;
    return false;
}

std::vector<std::string> config::extensions_of(const std::string& room) const {
    auto it = extensions.find(room);
    if (it == extensions.end() || it->second.empty()) return {room};
    return it->second;
}

std::string config::room_of(const std::string& extension) const {
    for (const auto& [room, list] : extensions)
        for (const std::string& e : list)
            if (e == extension) return room;
    return extension;
}

bool parse_config_file(const std::string& path, config& cfg) {
    iniparser_set_error_callback(iniparser_complaint);
    dictionary_ptr dict(iniparser_load(path.c_str()));
    if (!dict) return false;
    const dictionary* d = dict.get();

    read_text(d, "pms:host", cfg.pmshost);
    cfg.pmsport = static_cast<uint16_t>(read_port(d, "pms:port", 5010));
    read_text(d, "pms:statesfile", cfg.statesfile);
    read_text(d, "pms:interface", cfg.pmsinterface);
    read_text(d, "pms:encoding", cfg.pmsencoding);
    cfg.resync = iniparser_getboolean(d, "pms:resync", 0) != 0;
    cfg.night_audit = iniparser_getboolean(d, "pms:night_audit", 0) != 0;
    cfg.pms_tls = iniparser_getboolean(d, "pms:tls", 0) != 0;
    read_text(d, "pms:tls_ca", cfg.pms_tls_ca);
    read_text(d, "pms:tls_cert", cfg.pms_tls_cert);
    read_text(d, "pms:tls_key", cfg.pms_tls_key);
    read_text(d, "pms:tls_server_name", cfg.pms_tls_server_name);
    cfg.pms_connect_timeout_ms = read_seconds(d, "pms:connect_timeout", 5000);
    cfg.pms_write_timeout_ms = read_seconds(d, "pms:write_timeout", 10000);
    cfg.pms_answer_timeout = read_seconds_or_off(d, "pms:answer_timeout");
    cfg.pms_alive_interval = read_seconds_or_off(d, "pms:alive_interval");
    cfg.plus_prefix = read_plus_prefix(d);
    cfg.room_max_length = read_int_in(d, "pms:room_max_length", 1, 64, 8);
    if (opt_text t = get_text(d, "logger:log_type"))
        cfg.logtype = strcasestr(t->c_str(), "syslog") ? 0 : 1;
    cfg.loglevel = static_cast<uint16_t>(iniparser_getint(d, "logger:log_level", 5));
    cfg.disable_log = iniparser_getboolean(d, "logger:disable_log", 0);
    read_text(d, "logger:log_file", cfg.logfile);
    cfg.personal_data = iniparser_getboolean(d, "logger:personal_data", 1) != 0;
    cfg.status_listen = get_text(d, "status:listen");

    cfg.databases = read_databases(d);

    cfg.use_manager = iniparser_getboolean(d, "services:cdr_use_manager", 0);
    cfg.mgr_port = read_port(d, "services:cdr_mgr_port", 5038);
    read_text(d, "services:cdr_mgr_host", cfg.mgr_host);
    read_text(d, "services:cdr_mgr_user", cfg.mgr_user);
    read_text(d, "services:cdr_mgr_password", cfg.mgr_passwd);
    cfg.mgr_events_set = iniparser_find_entry(d, "services:cdr_mgr_events") != 0;
    read_text(d, "services:cdr_mgr_events", cfg.mgr_events);
    cfg.noremovecalls = iniparser_getint(d, "services:noremovecalls", 0);
    read_text(d, "services:bareon", cfg.bareon);
    read_text(d, "services:bareoff", cfg.bareoff);
    read_text(d, "services:dndon", cfg.dndon);
    read_text(d, "services:dndoff", cfg.dndoff);
    read_text(d, "services:wakeup_set", cfg.wakeup_set);
    read_text(d, "services:wakeup_clear", cfg.wakeup_clear);
    read_text(d, "services:checkin", cfg.checkin);
    read_text(d, "services:checkout", cfg.checkout);
    read_text(d, "services:guest_change", cfg.guest_change);
    read_text(d, "services:room_move", cfg.room_move);
    read_text(d, "services:billmark", cfg.billmark);
    read_text(d, "services:billok", cfg.billok);
    read_text(d, "services:room_status", cfg.room_state);
    read_text(d, "services:wakeup_result", cfg.wakeup_result);
    read_text(d, "services:billcalls", cfg.billcalls);
    read_text(d, "services:wrmark", cfg.wrmark);
    read_text(d, "services:remark", cfg.remark);
    read_text(d, "services:mwi_on", cfg.mwi_on);
    read_text(d, "services:mwi_off", cfg.mwi_off);
    cfg.ami_timeout = iniparser_getint(d, "services:ami_timeout", 5);
    if (cfg.ami_timeout < 1) cfg.ami_timeout = 1;
    for (const char* key : step_keys)
        for (int n = 2; n <= 9; ++n)
            if (opt_text step =
                    get_text(d, "services:" + std::string(key) + "." + std::to_string(n)))
                cfg.more_steps[key].push_back(std::move(*step));

    cfg.wakeup = read_wakeup(d);
    cfg.rooms = read_rooms(d);
    cfg.extensions = read_extensions(d);
    read_posting(d, cfg);
    read_rating(d, path, cfg);
    cfg.fixes = read_fixes(d);

    // Deadlines on outside calls: a key that is set applies; without it
    // [fixes] deadlines brings the defaults, and otherwise the long-standing
    // limits stay.
    const bool deadlines = cfg.fixes.deadlines;
    auto seconds = [&](const char* key, int def) {
        const int v = read_whole_seconds(d, key);
        return v > 0 ? v : deadlines ? def : 0;
    };
    cfg.ami_connect_timeout = seconds("services:ami_connect_timeout", 5);
    cfg.ami_login_timeout = seconds("services:ami_login_timeout", 10);
    cfg.rooms.ldap_timeout = seconds("rooms:ldap_timeout", 10);
    if (deadlines)
        for (db_settings& s : cfg.databases) {
            if (!s.connect_timeout) s.connect_timeout = 5;
            if (!s.read_timeout) s.read_timeout = 30;
            if (!s.write_timeout) s.write_timeout = 30;
        }
    return true;
}

config_loader::config_loader(std::string path)
    : path_(std::move(path)), published_(std::make_shared<const config>()) {}

config_ptr config_loader::current() const {
    mutex_lock guard(mutex_);
    return published_;
}

void config_loader::publish(std::shared_ptr<const config> cfg) {
    mutex_lock guard(mutex_);
    published_ = std::move(cfg);
}

bool load_tariff(config& cfg) {
    if (!cfg.rating.tariffs) return true;
    std::vector<std::string> reasons;
    tariff_ptr table = tariff::load(*cfg.rating.tariffs, reasons);
    if (!table) {
        // The first broken lines (orlanbeck -t names them all).
        for (size_t i = 0; i < reasons.size() && i < 20; i++)
            LOG(L_ERROR, "Tariff file refused: %s", reasons[i].c_str());
        LOG(L_ERROR, "Tariff file %s refused: %s", cfg.rating.tariffs->c_str(),
            cfg.tariff ? "the previous table stays" : "calls are posted as unrated");
        return false;
    }
    LOG(L_NOTICE, "Tariff file %s: %zu lines", cfg.rating.tariffs->c_str(), table->size());
    cfg.tariff = std::move(table);
    return true;
}

int config_loader::load(bool reload) {
    // Every load starts from the defaults: a key removed from the file is
    // unset afterwards. Only the database records of earlier loads are kept.
    auto cfg = std::make_shared<config>();
    const std::vector<dbdriver_ptr> old = current()->dbdrivers;
    if (!parse_config_file(path_, *cfg)) {
        cfg->dbdrivers = old;
        publish(std::move(cfg));
        return -1;
    }
    // The previous table stays when the file is refused now.
    cfg->tariff = current()->tariff;
    if (!cfg->rating.tariffs) cfg->tariff = nullptr;
    load_tariff(*cfg);
    const bool mysql_at_use = reload && cfg->fixes.deadlines;
    cfg->dbdrivers =
        merge_drivers(load_dbdrivers(cfg->databases, cfg->fixes.mysql, true, mysql_at_use), old);
    publish(std::move(cfg));
    return 0;
}
