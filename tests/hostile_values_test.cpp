// Hostile values stay values. Every field of every record the daemon reads
// from the PMS, and every header of every Manager event it reads, carries in
// turn texts that try to be record framing, SQL, Manager protocol or a line
// of their own; one daemon run per text and mode. Afterwards the states
// file keeps its tables, the PMS parses no field the daemon did not put
// there, room 102 (the bystander) is untouched, no ordinary call is lost,
// the service manager hears only the daemon's own assignments, every log
// line is one of the daemon's, and the daemon still runs.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>

#include "sim_notify.h"
#include "support_daemon.h"

using namespace std::chrono_literals;
using texts = std::vector<std::string>;
using headers = std::vector<std::pair<std::string, std::string>>;

namespace {

struct payload {
    const char* name;
    std::string text;
    // In a PMS record, where a separator is framing: fields that a PMS could
    // mean are left out (a second RN would be the PMS's own word).
    std::string pms_text;
};

const payload payloads[] = {
    {"Ordinary", "42", ""},  // the test's own control: passes everywhere
    {"Separator", "5|RN102|TA1", "5|ZZ1"},
    {"Stx",
     "a\x02"
     "b",
     ""},
    {"Etx",
     "a\x03"
     "b",
     ""},
    {"Nul", std::string("a\0b", 3), ""},
    {"CrLf", "a\r\nb", ""},
    {"Quotes", "O'Brien \"Jr\"", ""},
    {"Sql", "1','x','y',0);DROP TABLE cdrcache;--", ""},
    {"ManagerHeaderLine", "\r\nEvent: Cdr\r\nSource: 102", ""},
    {"ResponseFollows", "Response: Follows", ""},
    {"EndCommand", "--END COMMAND--", ""},
    {"FiveThousandBytes", std::string(5000, '7'), ""},
    {"InvalidUtf8", "\xc3\x28\xff\xfe\xed\xa0\x80", ""},
    {"Empty", "", ""},
};

enum class mode { specified, fixes };

// The records the daemon reads from the PMS, with ordinary values for room
// 101; {date} is today, {tomorrow} a date that never rings in a test.
struct pms_form {
    const char* type;
    headers fields;
};
const pms_form pms_forms[] = {
    {"GI", {{"RN", "101"}, {"GN", "Smith"}, {"GL", "EN"}, {"GS", "N"}}},
    {"GO", {{"RN", "101"}, {"GN", "Smith"}, {"GL", "EN"}, {"GS", "N"}}},
    {"GC",
     {{"RN", "101"}, {"G#", "4711"}, {"GN", "Smith"}, {"GL", "EN"}, {"GS", "N"}, {"RO", "101"}}},
    {"RE", {{"RN", "101"}, {"RS", "1"}, {"CS", "1"}, {"DN", "N"}, {"ML", "N"}, {"ID", "7"}}},
    {"WR", {{"RN", "101"}, {"DA", "{tomorrow}"}, {"TI", "0700"}}},
    {"WC", {{"RN", "101"}, {"DA", "{tomorrow}"}, {"TI", "0700"}}},
    {"PA", {{"AS", "OK"}, {"RN", "101"}, {"P#", "9999"}, {"DA", "{date}"}, {"TI", "120000"}}},
    {"NS", {{"DA", "{date}"}, {"TI", "120000"}}},
    {"NE", {{"DA", "{date}"}, {"TI", "120000"}}},
    {"DS", {{"DA", "{date}"}, {"TI", "120000"}}},
    {"DE", {{"DA", "{date}"}, {"TI", "120000"}}},
    {"LA", {{"DA", "{date}"}, {"TI", "120000"}}},
    {"LS", {{"DA", "{date}"}, {"TI", "120000"}}},
};

// Manager events: the headers of a Cdr the cache reads, the dial codes'
// UserEvents, and the wake-up call's OriginateResponse (its ActionID is the
// daemon's).
const char* const cdr_headers[] = {"Event",
                                   "Privilege",
                                   "AccountCode",
                                   "Source",
                                   "Destination",
                                   "DestinationContext",
                                   "CallerID",
                                   "Channel",
                                   "DestinationChannel",
                                   "LastApplication",
                                   "LastData",
                                   "StartTime",
                                   "AnswerTime",
                                   "EndTime",
                                   "Duration",
                                   "BillableSeconds",
                                   "Disposition",
                                   "AMAFlags",
                                   "UniqueID",
                                   "UserField",
                                   "From",
                                   "To",
                                   "Cost",
                                   "CallClass",
                                   "FaxData"};
struct user_form {
    const char* name;
    headers fields;
};
const user_form user_forms[] = {
    {"Minibar", {{"Room", "101"}, {"Article", "12"}, {"Quantity", "2"}, {"Amount", "700"}}},
    {"RoomStatus", {{"Room", "101"}, {"Status", "3"}, {"MaidId", "7"}}},
    {"WakeupSnooze", {{"Room", "101"}, {"Minutes", "5"}}},
};
const headers originate_response = {{"Event", "OriginateResponse"},
                                    {"Privilege", "call,all"},
                                    {"ActionID", "{id}"},
                                    {"Response", "Failure"},
                                    {"Channel", "PJSIP/101"},
                                    {"Context", "hotel-wakeup"},
                                    {"Exten", "101"},
                                    {"Reason", "3"},
                                    {"Uniqueid", "1795547467.9"},
                                    {"CallerIDNum", "<unknown>"},
                                    {"CallerIDName", "<unknown>"}};

// What the daemon may send the PMS: record types and their fields.
const std::map<std::string, std::set<std::string>> sent_fields = {
    {"LS", {"DA", "TI"}},
    {"LA", {"DA", "TI"}},
    {"LE", {"DA", "TI"}},
    {"DR", {"DA", "TI"}},
    {"LD", {"DA", "TI", "V#", "IF"}},
    {"LR", {"RI", "FL"}},
    {"PS", {"P#", "RN", "PT", "TA", "DA", "TI", "DU", "DD", "PC", "CT", "MA", "M#"}},
    {"RE", {"RN", "RS", "CS", "DN", "ML", "ID"}},
    {"WA", {"RN", "DA", "TI", "AS"}},
};

std::string local_text(const char* format, int seconds_ahead = 0) {
    const time_t t = time(nullptr) + seconds_ahead;
    struct tm tm {};
    localtime_r(&t, &tm);
    char out[32];
    strftime(out, sizeof out, format, &tm);
    return out;
}

std::string filled(std::string value, const std::string& id = "") {
    if (value == "{date}") return local_text("%y%m%d");
    if (value == "{tomorrow}") return local_text("%y%m%d", 86400);
    if (value == "{id}") return id;
    return value;
}

// The fields of a record text ("XX|f1|f2|"), or why it is not one the
// daemon may send.
std::string record_fault(const std::string& text) {
    for (unsigned char c : text)
        if (c < 0x20 || c == 0x7f) return "a control byte";
    if (text.size() < 3 || text[2] != '|' || text.back() != '|') return "not whole";
    const auto type = sent_fields.find(text.substr(0, 2));
    if (type == sent_fields.end()) return "an unknown type";
    std::set<std::string> seen;
    for (size_t at = 3; at < text.size(); at = text.find('|', at) + 1) {
        const std::string field = text.substr(at, text.find('|', at) - at);
        const std::string name = field.substr(0, 2);
        if (!type->second.count(name)) return "field " + name + " it does not send";
        if (!seen.insert(name).second) return "field " + name + " twice";
        if (name == "RN" && field != "RN101" && field != "RN102") return "room " + field;
    }
    return "";
}

std::string field(const std::string& record, const std::string& name) {
    const size_t at = record.find("|" + name);
    return at == std::string::npos ? "" : record.substr(at + 3, record.find('|', at + 1) - at - 3);
}

std::string shown(const std::string& text) {
    std::string out;
    for (unsigned char c : text.substr(0, 120)) {
        char hex[8];
        snprintf(hex, sizeof hex, "\\x%02x", c);
        out += c < 0x20 || c >= 0x7f ? std::string(hex) : std::string(1, static_cast<char>(c));
    }
    return text.size() > 120 ? out + "..." : out;
}

bool valid_utf8(const std::string& text) {
    for (size_t i = 0; i < text.size();) {
        const unsigned char c = text[i];
        const size_t n = c < 0x80         ? 1
                         : (c >> 5) == 6  ? 2
                         : (c >> 4) == 14 ? 3
                         : (c >> 3) == 30 ? 4
                                          : 0;
        if (n == 0 || i + n > text.size()) return false;
        for (size_t k = 1; k < n; ++k)
            if ((static_cast<unsigned char>(text[i + k]) >> 6) != 2) return false;
        i += n;
    }
    return true;
}

// The lines of a scrape that are not in the exposition format, or whose
// record type is not a type ("A-Z0-9", or "other").
std::string scrape_faults(int port) {
    const int fd = connect_loopback(port);
    if (fd < 0) return "no answer";
    const std::string request = "GET /metrics HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
    std::string reply;
    if (write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size())) {
        char buf[4096];
        for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) reply.append(buf, n);
    }
    close(fd);
    const size_t body = reply.find("\r\n\r\n");
    if (!reply.starts_with("HTTP/1.1 200") || body == std::string::npos)
        return "answer " + shown(reply);
    std::string out = valid_utf8(reply) ? "" : "\n  not UTF-8";
    for (const std::string& line : lines_of(reply.substr(body + 4))) {
        if (line.empty() || line[0] == '#') continue;
        // name{label="value",...} number; in a value only \\, \" and \n.
        size_t at = line.find_first_of("{ ");
        bool ok = at != std::string::npos;
        if (ok && line[at] == '{') {
            for (++at; ok && at < line.size() && line[at] != '}';) {
                const size_t eq = line.find("=\"", at);
                ok = eq != std::string::npos;
                if (!ok) break;
                std::string value;
                for (at = eq + 2; at < line.size() && line[at] != '"'; ++at) {
                    if (line[at] == '\\')
                        ok = ok && ++at < line.size() && strchr("\\\"n", line[at]);
                    value += line[at];
                }
                if (eq >= 4 && line.compare(eq - 4, 4, "type") == 0 && value != "other")
                    for (char c : value) ok = ok && (isupper(c) || isdigit(c));
                ok = ok && at < line.size();
                if (ok && line[++at] == ',') ++at;
            }
            ++at;
        }
        if (!ok || at >= line.size() || line[at] != ' ') out += "\n  " + shown(line);
    }
    return out;
}

// Assignments to the service manager that are not the daemon's own, or that
// hold more than printable text.
std::string notify_faults(const notify_sim& systemd, pid_t daemon) {
    std::string out;
    for (const std::string& m : systemd.messages())
        for (const std::string& line : lines_of(m)) {
            const size_t eq = line.find('=');
            const std::string name = line.substr(0, eq);
            const std::string value = eq == std::string::npos ? "" : line.substr(eq + 1);
            bool ok =
                name == "READY" || name == "STOPPING" || name == "WATCHDOG" || name == "RELOADING"
                    ? value == "1"
                : name == "MAINPID" ? value == std::to_string(daemon)
                                    : name == "STATUS";
            for (unsigned char c : value) ok = ok && c >= 0x20 && c < 0x7f;
            if (!ok) out += "\n  " + shown(line);
        }
    return out;
}

// A daemon with everything that reads hostile values switched on: the
// Manager's Cdr events, the dial codes, the wake-up call (Originate), a
// Manager action at check-in; rooms 101 and 102. With the fixes also
// resyncs, night audits and room changes.
class hostile_run {
  public:
    hostile_run(mode m) : mode_(m), systemd_(run.dir().file("notify.sock")) {
        run.use_manager();
        run.console_log = false;  // the log file alone: statements go to standard output
        run.env = {"NOTIFY_SOCKET=" + run.dir().file("notify.sock"), "WATCHDOG_USEC=400000"};
        run.set("services", "cdr_mgr_events", "cdr,call,user")
            .set("rooms", "room1", "101")
            .set("rooms", "room2", "102")
            .set("dialcodes", "minibar_event", "Minibar")
            .set("dialcodes", "maid_event", "RoomStatus")
            .set("wakeup", "call", "yes")
            .set("services", "checkin", "ami:DBPut|Family=AMPUSER/%exten%|Key=cidname|Val=%name%");
        run.mgr.set_originate("101", {originate_outcome::silent, 0ms});
        run.set("status", "listen", std::to_string(status_port_));
        if (m == mode::fixes)
            run.set("fixes", "all", "yes")
                .set("pms", "resync", "yes")
                .set("pms", "night_audit", "yes")
                .set("services", "guest_change",
                     "ami:DBPut|Family=AMPUSER/%exten%|Key=cidname|Val=%name%");
    }

    daemon_run run;

    // A Cdr from `room`, billed, to a number of its own; `label` names it in
    // reports.
    mgr_cdr_event call(const std::string& room, const std::string& label) {
        const int n = ++calls_;
        const std::string number = "0049301" + std::to_string(10000 + n);
        labels_[number] = label;
        return mgr_cdr_event::make(room, number, "2024-05-01 10:00:00", 60)
            .set("UniqueID", "1714557600." + std::to_string(n));
    }
    // Sends an ordinary call of room 101 that must be posted.
    void control(const std::string& after) {
        mgr_cdr_event ev = call("101", "the call after " + after);
        control_.push_back(ev.get("Destination"));
        ASSERT_EQ(1, run.mgr.send_cdr(ev));
    }
    // A record to the PMS link, made again when a record before dropped it.
    bool deliver(const std::string& record) {
        for (int attempt = 0; attempt < 3; ++attempt) {
            if (run.pms.wait_link_active(10s) && run.pms.send_record(record)) return true;
            std::this_thread::sleep_for(100ms);
        }
        return false;
    }
    // The end of the log, for failure reports.
    std::string tail() const {
        const texts lines = lines_of(run.log());
        std::string out;
        for (size_t i = lines.size() > 30 ? lines.size() - 30 : 0; i < lines.size(); ++i)
            out += shown(lines[i]) + "\n";
        return out;
    }

    void manager_phase(const payload& p) {
        for (const char* h : cdr_headers) {
            const std::string place = std::string("Cdr ") + h;
            ASSERT_EQ(1, run.mgr.send_cdr(call("101", place).set(h, p.text)));
            control(place);
        }
        for (const user_form& u : user_forms) {
            for (size_t i = 0; i <= u.fields.size(); ++i) {
                headers fields = u.fields;
                if (i < fields.size()) fields[i].second = p.text;
                const std::string place = std::string("UserEvent ") + u.name + " " +
                                          (i < fields.size() ? fields[i].first : "UserEvent");
                ASSERT_EQ(1, run.mgr.send_user_event(i < fields.size() ? u.name : p.text, fields));
                control(place);
            }
        }
    }

    // The wake-up booked at start rings 101 (silent): its ActionID answers.
    void originate_phase(const payload& p) {
        std::string id;
        ASSERT_TRUE(wait_until([&] {
            for (const mgr_action& a : run.mgr.actions())
                if (a.get("action") == "Originate") id = a.get("actionid");
            return !id.empty();
        })) << tail();
        for (size_t i = 0; i < originate_response.size(); ++i) {
            std::string text;
            for (size_t j = 0; j < originate_response.size(); ++j)
                text += originate_response[j].first + ": " +
                        (i == j ? p.text : filled(originate_response[j].second, id)) + "\r\n";
            const std::string place = "OriginateResponse " + originate_response[i].first;
            ASSERT_EQ(1, run.mgr.send_raw(text + "\r\n"));
            control(place);
        }
    }

    void pms_phase(const payload& p) {
        const std::string& value = p.pms_text.empty() ? p.text : p.pms_text;
        for (const pms_form& f : pms_forms) {
            for (size_t i = 0; i < f.fields.size(); ++i) {
                std::string record = std::string(f.type) + "|";
                for (size_t j = 0; j < f.fields.size(); ++j)
                    record +=
                        f.fields[j].first + (i == j ? value : filled(f.fields[j].second)) + "|";
                ASSERT_TRUE(deliver(record));
                // A check-out or a room change takes room 101 off the bill,
                // a night audit holds postings and a resync ends with the
                // rooms it was told of: ordinary records set it right again.
                if (mode_ == mode::fixes) {
                    for (const char* next : {"NE|", "DS|", "GI|RN101|GNSmith|GLEN|",
                                             "GI|RN102|GNBystander|GLEN|", "DE|"}) {
                        std::string r = next;
                        if (r.size() == 3) r += "DA" + filled("{date}") + "|TI120000|";
                        ASSERT_TRUE(deliver(r));
                    }
                }
            }
        }
        // The value as a room number, until the service manager has heard of
        // it; then as a record type.
        const size_t heard = systemd_.messages().size();
        ASSERT_TRUE(deliver("GI|RN" + value + "|GNSmith|"));
        wait_until([&] { return systemd_.messages().size() >= heard + 2; }, 3s);
        ASSERT_TRUE(deliver(value + "|RN101|"));
        // The last records: the check-in's action of room 103 shows that all
        // before it were handled (a record cut by a value may have dropped
        // the link and taken them along: then again).
        const auto marked = [&] {
            for (const mgr_action& a : run.mgr.actions())
                if (a.get("family") == "AMPUSER/103") return true;
            return false;
        };
        for (int attempt = 0; attempt < 3 && !marked(); ++attempt)
            if (deliver("GI|RN101|GNSmith|GLEN|") && deliver("GI|RN103|GNLast|"))
                wait_until(marked, 5s);
        ASSERT_TRUE(marked()) << "the PMS's records were not all handled";
        std::this_thread::sleep_for(300ms);
    }

    // Everything sent so far is handled: the postings of every control call.
    bool posted(std::string* missing) {
        bool all = wait_until(
            [&] {
                std::set<std::string> dd;
                for (const std::string& ps : run.pms.frames("PS|"))
                    if (field(ps, "RN") == "101") dd.insert(field(ps, "DD"));
                for (const std::string& n : control_)
                    if (!dd.count(n)) return false;
                return true;
            },
            20s);
        if (all) return true;
        std::set<std::string> dd;
        for (const std::string& ps : run.pms.frames("PS|")) dd.insert(field(ps, "DD"));
        for (const std::string& n : control_)
            if (!dd.count(n)) *missing += "\n  " + labels_[n];
        return false;
    }

    // Where a record the daemon sent comes from: a posting by its number
    // (the hostile value when it is not one of ours), an "RE" from the
    // maid's code; the rest of a cut record from the record before.
    std::string frame_faults(bool header_line) {
        std::string out, from = "start-up";
        for (const std::string& f : run.pms.frames()) {
            const std::string type = f.substr(0, 3), dd = field(f, "DD");
            if (type == "PS|")
                from = field(f, "PT") == "M" ? "UserEvent Minibar"
                       : labels_.count(dd)   ? labels_[dd]
                                             : "Cdr Destination";
            else if (type == "RE|" || type == "WA|")
                from = type == "RE|" ? "UserEvent RoomStatus" : "the wake-up call";
            std::string fault = record_fault(f);
            // A header line in a header before Source is a Source of its
            // own, read first as the Manager protocol says: 102's call.
            if (fault.empty() && type == "PS|" && field(f, "RN") == "102" &&
                dd != bystander_number_ && !(header_line && labels_.count(dd)))
                fault = "room 102 reached";
            if (!fault.empty()) out += "\n  " + fault + " from " + from + ": " + shown(f);
        }
        return out;
    }

    std::string log_faults() const {
        std::string out;
        const std::string log = run.log();
        if (log.find('\r') != std::string::npos) out += "\n  a carriage return";
        int n = 0;
        for (const std::string& line : lines_of(log))
            if (!line.empty() && line[0] != '\t' && !like(kStamp, line.substr(0, kStamp.size())) &&
                ++n <= 5)
                out += "\n  " + shown(line);
        return n > 5 ? out + "\n  ... " + std::to_string(n) + " such lines" : out;
    }

    std::set<std::string> tables() {
        std::set<std::string> out;
        for (const auto& row : run.states("select name from sqlite_master where type='table'"))
            out.insert(row[0]);
        return out;
    }
    sql_rows rows_of_102() {
        sql_rows out;
        const std::set<std::string> present = tables();
        for (const std::string t : {"occupancy", "actions", "wakeups"})
            if (present.count(t))
                for (auto& row :
                     run.states("select '" + t + "', * from " + t + " where room='102'"))
                    out.push_back(row);
        return out;
    }
    // Files in the folder that are not the daemon's or the test's.
    std::string strange_files() const {
        std::string out;
        for (const auto& e : std::filesystem::directory_iterator(run.dir().path())) {
            const std::string name = e.path().filename();
            bool ours = false;
            for (const char* prefix : {"states.db", "pbx.db", "orlanbeck.", "notify.sock"})
                ours = ours || name.starts_with(prefix);
            if (!ours) out += " " + name;
        }
        return out;
    }

    void run_all(const payload& p) {
        ASSERT_TRUE(run.start()) << tail();
        // A wake-up for room 101 rings in a moment; room 102 calls.
        ASSERT_TRUE(run.pms.send_record("WR|RN101|" + local_text("DA%y%m%d|TI%H%M%S|", 2)));
        mgr_cdr_event bystander = call("102", "room 102's call");
        bystander_number_ = bystander.get("Destination");
        ASSERT_EQ(1, run.mgr.send_cdr(bystander));
        manager_phase(p);
        originate_phase(p);
        std::string missing;
        EXPECT_TRUE(posted(&missing)) << "calls lost:" << missing << "\n" << tail();
        if (mode_ == mode::fixes) {
            ASSERT_TRUE(run.play({"GI|RN102|GNBystander|GLEN|"}, "Bystander")) << tail();
            ASSERT_TRUE(
                wait_until([&] { return run.mgr.db_get("AMPUSER/102", "cidname").has_value(); }));
        }
        const std::set<std::string> before = tables();
        const sql_rows room102 = mode_ == mode::fixes ? rows_of_102() : sql_rows{};
        pms_phase(p);
        if (mode_ == mode::fixes) {
            // With the fixes the states file stays open: calls go on.
            for (int i = 0; i < 3; ++i) control("the PMS's records");
            EXPECT_TRUE(posted(&missing)) << "calls lost:" << missing << "\n" << tail();
            EXPECT_EQ(room102, rows_of_102()) << "room 102's guest, actions and wake-ups";
            EXPECT_EQ("Bystander", run.mgr.db_get("AMPUSER/102", "cidname").value_or("none"));
            for (const char* t : {"rooms", "cdrcache", "occupancy", "outbox"})
                EXPECT_TRUE(tables().count(t)) << t;
        }
        EXPECT_TRUE(run.process().running()) << tail();
        const std::set<std::string> after = tables();
        for (const std::string& t : before) EXPECT_TRUE(after.count(t)) << "table " << t << " lost";
        EXPECT_TRUE(after.count("cdrcache"));
        EXPECT_EQ("", strange_files());
        const bool header_line = std::string(p.name) == "ManagerHeaderLine";
        EXPECT_EQ("", frame_faults(header_line)) << "PMS frames";
        if (mode_ == mode::specified) {
            for (const mgr_action& a : run.mgr.actions())
                EXPECT_NE("AMPUSER/102", a.get("family")) << "an action for room 102";
        }
        EXPECT_EQ("", notify_faults(systemd_, run.process().pid()))
            << "the service manager's messages";
        EXPECT_EQ("", log_faults()) << "log lines not the daemon's";
        EXPECT_EQ("", scrape_faults(status_port_)) << "/metrics";
        if (getenv("HOSTILE_DUMP")) {
            write_file(std::string(getenv("HOSTILE_DUMP")) + ".log", run.log());
            std::string fr;
            for (const pms_sim::frame& f : run.pms.transcript())
                fr += (f.incoming ? "<- " : "-> ") + shown(f.text) + "\n";
            write_file(std::string(getenv("HOSTILE_DUMP")) + ".frames", fr);
        }
    }

  private:
    mode mode_;
    notify_sim systemd_;
    int status_port_ = pick_free_port();
    int calls_ = 0;
    std::map<std::string, std::string> labels_;  // by a call's number
    texts control_;
    std::string bystander_number_;
};

class HostileValues : public testing::TestWithParam<std::tuple<mode, size_t>> {};

TEST_P(HostileValues, InEveryFieldAndHeader) {
    const auto [m, index] = GetParam();
    hostile_run r(m);
    r.run_all(payloads[index]);
}

INSTANTIATE_TEST_SUITE_P(Payloads, HostileValues,
                         testing::Combine(testing::Values(mode::specified, mode::fixes),
                                          testing::Range<size_t>(0, std::size(payloads))),
                         [](const testing::TestParamInfo<HostileValues::ParamType>& param) {
                             return std::string(std::get<0>(param.param) == mode::fixes
                                                    ? "Fixes"
                                                    : "Specified") +
                                    payloads[std::get<1>(param.param)].name;
                         });

// The attacks of the report, black-box, under the shipped configuration.
void shipped(daemon_run& run) {
    run.use_manager();
    run.set("fixes", "all", "yes")
        .set("rooms", "room1", "101")
        .set("rooms", "room2", "102")
        .set("services", "checkin", "ami:DBPut|Family=AMPUSER/%exten%|Key=cidname|Val=%name%");
}

mgr_cdr_event room_call(const std::string& room, int n) {
    return mgr_cdr_event::make(room, "0049302" + std::to_string(1000 + n), "2024-05-01 10:00:00",
                               60)
        .set("UniqueID", "1714557600." + std::to_string(n));
}

size_t posted_for(const pms_sim& pms, const std::string& room) {
    size_t n = 0;
    for (const std::string& ps : pms.frames("PS|")) n += field(ps, "RN") == room;
    return n;
}

TEST(HostileAttacks, ACallerNamedResponseFollowsLosesNoCall) {
    daemon_run run;
    shipped(run);
    ASSERT_TRUE(run.start()) << run.log();
    // An outside caller's name, then six ordinary calls.
    for (int n = 1; n <= 7; ++n)
        ASSERT_EQ(1, run.mgr.send_cdr(room_call("101", n).set(
                         "CallerID", n == 1 ? "\"Response: Follows\" <004930555>" : "<101>")));
    EXPECT_TRUE(wait_until([&] { return posted_for(run.pms, "101") == 7; }))
        << posted_for(run.pms, "101") << " of 7 calls posted";
    // A guest of that name: the check-in writes it for the exchange, whose
    // calls from the room carry it.
    ASSERT_TRUE(run.pms.send_record("GI|RN102|GNResponse: Follows|"));
    ASSERT_TRUE(wait_until([&] { return run.mgr.db_get("AMPUSER/102", "cidname").has_value(); }));
    const std::string name = *run.mgr.db_get("AMPUSER/102", "cidname");
    for (int n = 8; n <= 12; ++n)
        ASSERT_EQ(1,
                  run.mgr.send_cdr(room_call("102", n).set("CallerID", "\"" + name + "\" <102>")));
    EXPECT_TRUE(wait_until([&] { return posted_for(run.pms, "102") == 5; }))
        << posted_for(run.pms, "102") << " of 5 calls posted";
}

TEST(HostileAttacks, DialledDigitsStayInTheirFieldAndRecord) {
    daemon_run run;
    shipped(run);
    ASSERT_TRUE(run.start()) << run.log();
    ASSERT_EQ(1, run.mgr.send_cdr(room_call("101", 1).set("Destination", "555|RN102|TA1")));
    ASSERT_EQ(1, run.mgr.send_cdr(room_call("101", 2).set(
                     "Destination", "555\x03\x02PS|P#9999|RN102|TA100000|\x03\x02")));
    ASSERT_TRUE(run.pms.wait_for_count("PS|", 2, 10s)) << run.log();
    std::this_thread::sleep_for(500ms);
    for (const std::string& f : run.pms.frames()) {
        EXPECT_EQ("", record_fault(f)) << shown(f);
        EXPECT_EQ(std::string::npos, f.find("|RN102|")) << shown(f);
        EXPECT_EQ(std::string::npos, f.find("|TA1|")) << shown(f);
    }
    EXPECT_EQ(2u, posted_for(run.pms, "101"));
}

TEST(HostileAttacks, ARoomNumberOfSqlLeavesTheStatesFileAlone) {
    daemon_run run;
    shipped(run);
    run.set("pms", "room_max_length", "64");
    ASSERT_TRUE(run.start()) << run.log();
    const sql_rows tables = run.states("select type, name from sqlite_master order by name");
    ASSERT_TRUE(run.play({"GI|RN1','x','y',0);DROP TABLE cdrcache;--|GNSmith|"}, "Guest checkin"))
        << run.log();
    EXPECT_EQ(tables, run.states("select type, name from sqlite_master order by name"));
    // Nothing attached: no file but the daemon's own is made.
    for (const auto& e : std::filesystem::directory_iterator(run.dir().path())) {
        const std::string name = e.path().filename();
        EXPECT_TRUE(name.starts_with("states.db") || name.starts_with("pbx.db") ||
                    name.starts_with("orlanbeck."))
            << name;
    }
    ASSERT_EQ(1, run.mgr.send_cdr(room_call("101", 1)));
    EXPECT_TRUE(run.pms.wait_for_frame("PS|", 10s)) << run.log();
}

TEST(HostileAttacks, ARoomNumberWithLineBreaksReachesTheServiceManagerAsText) {
    daemon_run run;
    notify_sim systemd(run.dir().file("notify.sock"));
    run.env = {"NOTIFY_SOCKET=" + run.dir().file("notify.sock"), "WATCHDOG_USEC=2000000"};
    shipped(run);
    run.set("pms", "room_max_length", "64");
    ASSERT_TRUE(run.start()) << run.log();
    ASSERT_TRUE(run.pms.send_record("GI|RN101\nMAINPID=1\nWATCHDOG=trigger|GNSmith|"));
    ASSERT_TRUE(systemd.wait("last record GI", 10s)) << systemd.all();
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ("", notify_faults(systemd, run.process().pid())) << systemd.all();
    EXPECT_TRUE(run.process().running());
}

}  // namespace
