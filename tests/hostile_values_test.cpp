// Hostile values stay values. Every field of every record the daemon reads
// from the PMS, and every header of every Manager event it reads, carries in
// turn a text that tries to be record framing, SQL, Manager protocol or a
// line of its own: one daemon run per text and mode. Afterwards the states
// file keeps its tables, the PMS parses no field the daemon did not put
// there, room 102 (the bystander) is untouched, no ordinary call is lost,
// the service manager, the log and /metrics hear only the daemon's own
// words, and the daemon still runs. Then a guest name that the exchange
// carries back.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <filesystem>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include "sim_notify.h"
#include "support_daemon.h"
#include "text.h"

using namespace std::chrono_literals;
using texts = std::vector<std::string>;

namespace {

struct payload {
    const char* name;
    std::string text;
    // In a PMS record, where "|" is framing, a second RN would be the PMS's
    // own word: the separator brings a field name nobody uses.
    std::string pms_text;
};

const payload payloads[] = {
    {"Ordinary", "42", ""},  // the test's own control: passes on every build
    {"Separator", "5|RN102|TA1", "5|ZZ1"},
    {"Stx", std::string("a\x02") + "b", ""},
    {"Etx", std::string("a\x03") + "b", ""},
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

enum class mode { plain, fixes };  // no [fixes] section, or [fixes] all = yes

// The records the daemon reads from the PMS, for room 101.
const char* const pms_forms[] = {
    "GI|RN101|GNSmith|GLEN|GSN|",
    "GO|RN101|GNSmith|GLEN|GSN|",
    "GC|RN101|G#4711|GNSmith|GLEN|GSN|RO101|",
    "RE|RN101|RS1|CS1|DNN|MLN|ID7|",
    "WR|RN101|DA{tomorrow}|TI0700|",
    "WC|RN101|DA{tomorrow}|TI0700|",
    "PA|ASOK|RN101|P#9999|DA{today}|TI120000|",
    "NS|DA{today}|TI120000|",
    "NE|DA{today}|TI120000|",
    "DS|DA{today}|TI120000|",
    "DE|DA{today}|TI120000|",
    "LA|DA{today}|TI120000|",
    "LS|DA{today}|TI120000|",
};
// The Manager events it reads: the headers of a Cdr that the cache takes,
// the dial codes' and the wake-up's UserEvents (the name first), and the
// wake-up call's OriginateResponse.
const char* const cdr_headers =
    "Event Privilege AccountCode Source Destination DestinationContext CallerID Channel "
    "DestinationChannel LastApplication LastData StartTime AnswerTime EndTime Duration "
    "BillableSeconds Disposition AMAFlags UniqueID UserField From To Cost CallClass FaxData";
// Headers that billing does not read: a call with any value in them is
// billed like any other.
const char* const carried_headers =
    "Privilege AccountCode DestinationContext CallerID Channel DestinationChannel "
    "LastApplication LastData AMAFlags UserField From To Cost CallClass FaxData";
const char* const user_events[] = {
    "UserEvent=Minibar Room=101 Article=12 Quantity=2 Amount=700",
    "UserEvent=RoomStatus Room=101 Status=3 MaidId=7",
    "UserEvent=WakeupSnooze Room=101 Minutes=5",
};
const char* const originate_response =
    "Event=OriginateResponse Privilege=call,all ActionID={id} Response=Failure "
    "Channel=PJSIP/101 Context=hotel-wakeup Exten=101 Reason=3 Uniqueid=1795547467.9 "
    "CallerIDNum=<unknown> CallerIDName=<unknown>";
// What the daemon may send the PMS: each record type with its field names.
const std::map<std::string, std::string> sent_fields = {
    {"LS", "DATI"},         {"LA", "DATI"},     {"LE", "DATI"},
    {"DR", "DATI"},         {"LD", "DATIV#IF"}, {"LR", "RIFL"},
    {"RE", "RNRSCSDNMLID"}, {"WA", "RNDATIAS"}, {"PS", "P#RNPTTADATIDUDDPCCTMAM#"}};

texts words(const std::string& text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

std::string filled(std::string text, const std::string& id = "") {
    const std::pair<std::string, std::string> marks[] = {
        {"{today}", local_time_text(time(nullptr), "%y%m%d")},
        {"{tomorrow}", local_time_text(time(nullptr) + 86400, "%y%m%d")},
        {"{id}", id}};
    for (const auto& [name, value] : marks)
        if (size_t at = text.find(name); at != std::string::npos)
            text.replace(at, name.size(), value);
    return text;
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

// Why a record text is not one the daemon may send ("" when it is).
std::string record_fault(const std::string& text) {
    for (unsigned char c : text)
        if (c < 0x20 || c == 0x7f) return "a control byte";
    if (text.size() < 3 || text[2] != '|' || text.back() != '|') return "not whole";
    const auto type = sent_fields.find(text.substr(0, 2));
    if (type == sent_fields.end()) return "an unknown type";
    std::set<std::string> seen;
    for (size_t at = 3; at < text.size(); at = text.find('|', at) + 1) {
        const std::string f = text.substr(at, text.find('|', at) - at), name = f.substr(0, 2);
        if (name.size() < 2 || type->second.find(name) % 2 != 0) return "field " + name;
        if (!seen.insert(name).second) return "field " + name + " twice";
        if (name == "RN" && f != "RN101" && f != "RN102") return "room " + f;
    }
    return "";
}

// Assignments to the service manager that are not the daemon's own, or that
// hold more than printable text.
std::string notify_faults(const notify_sim& systemd, pid_t daemon) {
    std::string out;
    for (const std::string& m : systemd.messages())
        for (const std::string& line : lines_of(m)) {
            const size_t eq = std::min(line.find('='), line.size());
            const std::string name = line.substr(0, eq),
                              value = line.substr(eq + (eq < line.size()));
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

// Whether a line of /metrics is a series in the exposition format:
// name{label="value",...} value. Read by hand: a regular expression
// recurses once per character of a label and overflows the stack on the
// long values this test sends.
bool is_series(const std::string& line) {
    auto name_char = [](char c, bool first) {
        return std::isalpha(static_cast<unsigned char>(c)) || c == '_' || c == ':' ||
               (!first && std::isdigit(static_cast<unsigned char>(c)));
    };
    std::size_t i = 0;
    while (i < line.size() && name_char(line[i], i == 0)) ++i;
    if (i == 0) return false;
    if (i < line.size() && line[i] == '{') {
        ++i;
        while (i < line.size() && line[i] != '}') {
            const std::size_t start = i;
            while (i < line.size() && name_char(line[i], i == start)) ++i;
            if (i == start || line.compare(i, 2, "=\"") != 0) return false;
            for (i += 2; i < line.size() && line[i] != '"'; ++i)
                if (line[i] == '\n')
                    return false;
                else if (line[i] == '\\' &&
                         (++i == line.size() ||
                          std::string("\\\"n").find(line[i]) == std::string::npos))
                    return false;
            if (i == line.size()) return false;
            if (++i < line.size() && line[i] == ',') ++i;
        }
        if (i == line.size()) return false;
        ++i;
    }
    return i + 1 < line.size() && line[i] == ' ' &&
           line.find_first_of(" \t", i + 1) == std::string::npos;
}

// The lines of /metrics that are not in the exposition format, or that
// count a record type outside A-Z0-9 (not UTF-8, say) as anything but
// "other".
std::string scrape_faults(int port) {
    const auto [status, body] = http_get(port, "/metrics");
    if (status != 200) return "\n  status " + std::to_string(status) + ": " + shown(body);
    std::string out;
    for (const std::string& line : lines_of(body)) {
        if (line.empty() || line[0] == '#') continue;
        bool ok = is_series(line);
        if (const auto at = line.find("type=\""); ok && at != std::string::npos) {
            const std::string type = line.substr(at + 6, line.find('"', at + 6) - at - 6);
            ok = type == "other" ||
                 (!type.empty() && type.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789") ==
                                       std::string::npos);
        }
        if (!ok) out += "\n  " + shown(line);
    }
    return out;
}

// A daemon with every reader of hostile values switched on: the Manager's
// Cdr events, the dial codes, the wake-up call, a Manager action and the
// status endpoint; rooms 101 and 102. With the fixes also resyncs, night
// audits and guest changes.
class hostile_run {
  public:
    explicit hostile_run(mode m) : mode_(m), systemd_(run.dir().file("notify.sock")) {
        const char* const cidname = "ami:DBPut|Family=AMPUSER/%exten%|Key=cidname|Val=%name%";
        run.use_manager();
        run.console_log = false;  // the log file alone: statements go to standard output
        run.env = {"NOTIFY_SOCKET=" + run.dir().file("notify.sock"), "WATCHDOG_USEC=400000"};
        run.set("services", "cdr_mgr_events", "cdr,call,user")
            .set("rooms", "room1", "101")
            .set("rooms", "room2", "102")
            .set("dialcodes", "minibar_event", "Minibar")
            .set("dialcodes", "maid_event", "RoomStatus")
            .set("wakeup", "call", "yes")
            .set("services", "checkin", cidname)
            .set("status", "listen", std::to_string(status_port_));
        run.mgr.set_originate("101", {originate_outcome::silent, 0ms});
        if (m == mode::fixes)
            run.set("fixes", "all", "yes")
                .set("pms", "resync", "yes")
                .set("pms", "night_audit", "yes")
                .set("pms", "room_max_length", "64")  // a room number of SQL reaches the stores
                .set("services", "guest_change", cidname);
    }

    void run_all(const payload& p) {
        ASSERT_TRUE(run.start()) << tail();
        // A wake-up for room 101 rings in a moment; room 102 calls.
        ASSERT_TRUE(run.pms.send_record("WR|RN101|" +
                                        local_time_text(time(nullptr) + 1, "DA%y%m%d|TI%H%M%S|")));
        const mgr_cdr_event bystander = call("102", "room 102's call");
        bystander_number_ = bystander.get("Destination");
        ASSERT_EQ(1, run.mgr.send_cdr(bystander));
        manager_phase(p.text);
        std::string missing;
        EXPECT_TRUE(posted(&missing)) << "calls lost:" << missing << "\n" << tail();
        // Without the fixes the first check-in closes the states file: the
        // PMS's records come last, and only with the fixes do calls follow.
        if (mode_ == mode::fixes) {
            ASSERT_TRUE(run.play({"GI|RN102|GNBystander|GLEN|"}, "Bystander")) << tail();
            ASSERT_TRUE(
                wait_until([&] { return run.mgr.db_get("AMPUSER/102", "cidname").has_value(); }));
        }
        const std::set<std::string> before = tables();
        const sql_rows room102 = rows_of_102();
        pms_phase(p.pms_text.empty() ? p.text : p.pms_text);
        if (mode_ == mode::fixes) {
            for (int i = 0; i < 3; ++i) control("the PMS's records");
            EXPECT_TRUE(posted(&missing)) << "calls lost:" << missing << "\n" << tail();
            EXPECT_EQ(room102, rows_of_102()) << "room 102's guest, actions and wake-ups";
            EXPECT_EQ("Bystander", run.mgr.db_get("AMPUSER/102", "cidname").value_or("none"));
        } else {
            for (const mgr_action& a : run.mgr.actions())
                EXPECT_NE("AMPUSER/102", a.get("family")) << "an action for room 102";
        }
        EXPECT_TRUE(run.process().running()) << tail();
        const std::set<std::string> after = tables();
        for (const std::string& t : before) EXPECT_TRUE(after.count(t)) << "table " << t << " lost";
        EXPECT_TRUE(after.count("cdrcache")) << "table cdrcache lost";
        EXPECT_EQ("", strange_files()) << "an attached database?";
        EXPECT_EQ("", frame_faults(std::string(p.name) == "ManagerHeaderLine")) << "PMS frames";
        EXPECT_EQ("", action_faults()) << "Manager actions";
        EXPECT_EQ("", notify_faults(systemd_, run.process().pid())) << "service manager";
        EXPECT_EQ("", log_faults()) << "log lines not the daemon's";
        EXPECT_EQ(0u, run.count_log("Got long line")) << "a Manager line under 8 KiB was cut";
        EXPECT_EQ("", scrape_faults(status_port_)) << "/metrics\n" << tail();
    }

  private:
    // A Cdr from `room` to a number of its own; `label` names it in reports.
    mgr_cdr_event call(const std::string& room, const std::string& label) {
        const int n = ++calls_;
        const std::string number = "0049301" + std::to_string(10000 + n);
        labels_[number] = label;
        return mgr_cdr_event::make(room, number, "2024-05-01 10:00:00", 60)
            .set("UniqueID", "1714557600." + std::to_string(n));
    }
    // An ordinary call of room 101 that must be posted.
    void control(const std::string& after) {
        const mgr_cdr_event ev = call("101", "the call after " + after);
        control_.push_back(ev.get("Destination"));
        ASSERT_EQ(1, run.mgr.send_cdr(ev));
    }

    void manager_phase(const std::string& value) {
        const texts carried = words(carried_headers);
        for (const std::string& h : words(cdr_headers)) {
            mgr_cdr_event ev = call("101", "the call with it in Cdr " + h);
            if (std::find(carried.begin(), carried.end(), h) != carried.end())
                carried_.push_back(ev.get("Destination"));
            ASSERT_EQ(1, run.mgr.send_cdr(ev.set(h, value)));
            control("Cdr " + h);
        }
        for (const char* form : user_events) {
            const texts fields = words(form);
            for (size_t i = 0; i < fields.size(); ++i) {
                std::vector<std::pair<std::string, std::string>> h;
                for (size_t j = 0; j < fields.size(); ++j) {
                    const size_t eq = fields[j].find('=');
                    h.emplace_back(fields[j].substr(0, eq),
                                   i == j ? value : fields[j].substr(eq + 1));
                }
                const std::string name = h[0].second;
                h.erase(h.begin());
                ASSERT_EQ(1, run.mgr.send_user_event(name, h));
                control(fields[0] + " " + fields[i]);
            }
        }
        // The wake-up booked at start rings 101 (silently): the daemon's
        // ActionID gets answers.
        std::string id;
        ASSERT_TRUE(wait_until([&] {
            for (const mgr_action& a : run.mgr.actions())
                if (a.get("action") == "Originate") id = a.get("actionid");
            return !id.empty();
        })) << tail();
        const texts fields = words(originate_response);
        for (size_t i = 0; i < fields.size(); ++i) {
            std::string text;
            for (size_t j = 0; j < fields.size(); ++j) {
                const size_t eq = fields[j].find('=');
                text += fields[j].substr(0, eq) + ": " +
                        (i == j ? value : filled(fields[j].substr(eq + 1), id)) + "\r\n";
            }
            ASSERT_EQ(1, run.mgr.send_raw(text + "\r\n"));
            control("OriginateResponse " + fields[i]);
        }
    }

    // A record to the PMS, again when a record cut by a value dropped the link.
    bool deliver(const std::string& record) {
        for (int attempt = 0; attempt < 3; ++attempt) {
            if (run.pms.wait_link_active(10s) && run.pms.send_record(record)) return true;
            std::this_thread::sleep_for(100ms);
        }
        return false;
    }

    void pms_phase(const std::string& value) {
        for (const char* form : pms_forms) {
            const std::string record = filled(form);
            for (size_t bar = 2; bar + 1 < record.size(); bar = record.find('|', bar + 1)) {
                const size_t end = record.find('|', bar + 1);
                ASSERT_TRUE(deliver(record.substr(0, bar + 3) + value + record.substr(end)));
                // A check-out or a room change takes room 101 off the bill,
                // a night audit holds postings and a resync checks out the
                // rooms it was not told of: ordinary records set it right.
                if (mode_ == mode::fixes) {
                    for (const char* next : {"NE|DA{today}|TI120000|", "DS|DA{today}|TI120000|",
                                             "GI|RN101|GNSmith|GLEN|", "GI|RN102|GNBystander|GLEN|",
                                             "DE|DA{today}|TI120000|"})
                        ASSERT_TRUE(deliver(filled(next)));
                }
            }
        }
        // As a room number until the service manager has heard of it; as a
        // record type.
        const size_t heard = systemd_.messages().size();
        ASSERT_TRUE(deliver("GI|RN" + value + "|GNSmith|"));
        wait_until([&] { return systemd_.messages().size() >= heard + 2; }, 3s);
        ASSERT_TRUE(deliver(value + "|RN101|"));
        // The check-in action of room 103 shows that every record before it
        // was handled.
        const auto marked = [&] {
            for (const mgr_action& a : run.mgr.actions())
                if (a.get("family") == "AMPUSER/103") return true;
            return false;
        };
        for (int attempt = 0; attempt < 3 && !marked(); ++attempt)
            if (deliver("GI|RN101|GNSmith|GLEN|") && deliver("GI|RN103|GNLast|"))
                wait_until(marked, 5s);
        ASSERT_TRUE(marked()) << "the PMS's records were not all handled\n" << tail();
        std::this_thread::sleep_for(300ms);
    }

    // Whether every control call was posted for room 101, and every call
    // with a value in a header billing does not read for its room; else
    // *missing names them.
    bool posted(std::string* missing) {
        const auto unposted = [&] {
            std::set<std::string> of_101, any;
            for (const std::string& ps : run.pms.frames("PS|")) {
                any.insert(field(ps, "DD"));
                if (field(ps, "RN") == "101") of_101.insert(field(ps, "DD"));
            }
            texts out;
            for (const std::string& n : control_)
                if (!of_101.count(n)) out.push_back(n);
            for (const std::string& n : carried_)
                if (!any.count(n)) out.push_back(n);
            return out;
        };
        if (wait_until([&] { return unposted().empty(); }, 20s)) return true;
        for (const std::string& n : unposted()) *missing += "\n  " + labels_[n];
        return false;
    }

    // Each fault names where the record came from: a posting by its number
    // (not one of ours: the hostile Destination), "RE" from the maid's code;
    // the rest of a cut record from the record before it.
    std::string frame_faults(bool header_line) {
        std::string out, from = "the start";
        for (const std::string& f : run.pms.frames()) {
            const std::string type = f.substr(0, 3), dd = field(f, "DD");
            if (type == "PS|")
                from = field(f, "PT") == "M" ? "UserEvent=Minibar"
                       : labels_.count(dd)   ? labels_[dd]
                                             : "Cdr Destination";
            else if (type == "RE|")
                from = "UserEvent=RoomStatus";
            std::string fault = record_fault(f);
            // A header line in a header before Source brings a Source of its
            // own, read first as the Manager protocol says: room 102's call.
            if (fault.empty() && type == "PS|" && field(f, "RN") == "102" &&
                dd != bystander_number_ && !(header_line && labels_.count(dd)))
                fault = "room 102 reached";
            const bool rest = !sent_fields.count(f.substr(0, 2));
            if (!fault.empty())
                out += "\n  " +
                       (rest ? "the rest of a cut record (the frame before: " + from + ")"
                             : fault + " from " + from) +
                       ": " + shown(f);
        }
        return out;
    }

    // Actions that are not the check-in's DBPut or the wake-up's Originate,
    // or a DBPut with a header of its value's making.
    std::string action_faults() const {
        std::string out;
        for (const mgr_action& a : run.mgr.actions()) {
            bool ok = a.get("action") == "Originate" || a.get("action") == "DBPut";
            for (const auto& [name, value] : a.headers)
                ok = ok &&
                     (a.get("action") == "Originate" ||
                      std::set<std::string>{"action", "actionid", "family", "key", "val"}.count(
                          name));
            if (!ok) {
                out += "\n ";
                for (const auto& [name, value] : a.headers) out += " " + name + ": " + shown(value);
            }
        }
        return out;
    }

    std::string log_faults() const {
        const std::string log = run.log();
        std::string out = log.find('\r') == std::string::npos ? "" : "\n  a carriage return";
        int n = 0;
        for (const std::string& line : lines_of(log))
            if (!line.empty() && line[0] != '\t' && !like(kStamp, line.substr(0, kStamp.size())) &&
                ++n <= 5)
                out += "\n  " + shown(line);
        return n > 5 ? out + "\n  ... " + std::to_string(n) + " such lines" : out;
    }

    std::string tail() const {
        const texts lines = lines_of(run.log());
        std::string out;
        for (size_t i = lines.size() > 30 ? lines.size() - 30 : 0; i < lines.size(); ++i)
            out += shown(lines[i]) + "\n";
        return out;
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

    daemon_run run;
    mode mode_;
    notify_sim systemd_;
    int status_port_ = pick_free_port();
    int calls_ = 0;
    std::map<std::string, std::string> labels_;  // by a call's number
    texts control_, carried_;                    // the numbers of calls that must be posted
    std::string bystander_number_;
};

class HostileValues : public testing::TestWithParam<std::tuple<mode, size_t>> {};

TEST_P(HostileValues, InEveryFieldAndHeader) {
    const auto [m, index] = GetParam();
    hostile_run(m).run_all(payloads[index]);
}

INSTANTIATE_TEST_SUITE_P(Payloads, HostileValues,
                         testing::Combine(testing::Values(mode::plain, mode::fixes),
                                          testing::Range<size_t>(0, std::size(payloads))),
                         [](const testing::TestParamInfo<HostileValues::ParamType>& param) {
                             return std::string(std::get<0>(param.param) == mode::fixes
                                                    ? "Fixes"
                                                    : "Default") +
                                    payloads[std::get<1>(param.param)].name;
                         });

// The attack of the report that the table cannot play: a guest's name that
// the check-in hands to the exchange and its calls carry back, black-box,
// under the shipped configuration.
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

}  // namespace
