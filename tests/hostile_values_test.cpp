// Hostile values stay values. Every field of every record the daemon reads
// from the PMS, and every header of every Manager event it reads, carries in
// turn texts that try to be record framing, SQL, Manager protocol or a line
// of their own; one daemon run per text and mode. Afterwards the states
// file keeps its tables, the PMS parses no field the daemon did not put
// there, room 102 (the bystander) is untouched, no ordinary call is lost,
// the service manager hears only the daemon's own assignments, every log
// line is one of the daemon's, and the daemon still runs.
#include <gtest/gtest.h>

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

// A daemon with everything that reads hostile values switched on: the
// Manager's Cdr events, the dial codes, the wake-up call (Originate), a
// Manager action at check-in; rooms 101 and 102. With the fixes also
// resyncs, night audits and room changes.
class hostile_run {
  public:
    hostile_run(mode m) : mode_(m), systemd_(run.dir().file("notify.sock")) {
        run.use_manager();
        run.console_log = false;  // the log file alone: statements go to standard output
        run.env = {"NOTIFY_SOCKET=" + run.dir().file("notify.sock"), "WATCHDOG_USEC=2000000"};
        run.set("services", "cdr_mgr_events", "cdr,call,user")
            .set("rooms", "room1", "101")
            .set("rooms", "room2", "102")
            .set("dialcodes", "minibar_event", "Minibar")
            .set("dialcodes", "maid_event", "RoomStatus")
            .set("wakeup", "call", "yes")
            .set("services", "checkin", "ami:DBPut|Family=AMPUSER/%exten%|Key=cidname|Val=%name%");
        run.mgr.set_originate("101", {originate_outcome::silent, 0ms});
        if (m == mode::fixes)
            run.set("fixes", "all", "yes")
                .set("pms", "resync", "yes")
                .set("pms", "night_audit", "yes")
                .set("services", "guest_change",
                     "ami:DBPut|Family=AMPUSER/%exten%|Key=cidname|Val=%name%");
    }

    daemon_run run;

    // A Cdr from `room`, billed, to a number of its own; with the fixes also
    // for hostile ones, which are sent with the same form.
    mgr_cdr_event call(const std::string& room, const std::string& place) {
        const int n = ++calls_;
        const std::string number = "0049301" + std::to_string(10000 + n);
        numbers_[number] = place;
        return mgr_cdr_event::make(room, number, "2024-05-01 10:00:00", 60)
            .set("UniqueID", "1714557600." + std::to_string(n));
    }
    // Sends an ordinary call of room 101 that must be posted.
    void control(const std::string& after) {
        mgr_cdr_event ev = call("101", after);
        control_.push_back(ev.get("Destination"));
        ASSERT_EQ(1, run.mgr.send_cdr(ev));
    }
    void noted(const std::string& place) {
        sent_.push_back({std::chrono::system_clock::now(), place});
    }

    void manager_phase(const payload& p) {
        for (const char* h : cdr_headers) {
            const std::string place = std::string("Cdr ") + h;
            noted(place);
            ASSERT_EQ(1, run.mgr.send_cdr(call("101", place).set(h, p.text)));
            control(place);
        }
        for (const user_form& u : user_forms) {
            for (size_t i = 0; i <= u.fields.size(); ++i) {
                headers fields = u.fields;
                if (i < fields.size()) fields[i].second = p.text;
                const std::string place = std::string("UserEvent ") + u.name + " " +
                                          (i < fields.size() ? fields[i].first : "UserEvent");
                noted(place);
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
        })) << run.log();
        for (size_t i = 0; i < originate_response.size(); ++i) {
            std::string text;
            for (size_t j = 0; j < originate_response.size(); ++j)
                text += originate_response[j].first + ": " +
                        (i == j ? p.text : filled(originate_response[j].second, id)) + "\r\n";
            const std::string place = "OriginateResponse " + originate_response[i].first;
            noted(place);
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
                noted(std::string(f.type) + " " + f.fields[i].first);
                ASSERT_TRUE(run.pms.send_record(record));
                // A check-out or a room change takes room 101 off the bill,
                // a night audit holds postings and a resync ends with the
                // rooms it was told of: ordinary records set it right again.
                if (mode_ == mode::fixes) {
                    for (const char* next : {"NE|", "DS|", "GI|RN101|GNSmith|GLEN|",
                                             "GI|RN102|GNBystander|GLEN|", "DE|"}) {
                        std::string r = next;
                        if (r.size() == 3) r += "DA" + filled("{date}") + "|TI120000|";
                        ASSERT_TRUE(run.pms.send_record(r));
                    }
                }
            }
        }
        // The last record: its check-in's action shows that all before it
        // were handled.
        ASSERT_TRUE(run.pms.send_record("GI|RN101|GNSmith|GLEN|"));
        ASSERT_TRUE(run.pms.send_record("GI|RN103|GNLast|"));
        ASSERT_TRUE(wait_until(
            [&] {
                for (const mgr_action& a : run.mgr.actions())
                    if (a.get("family") == "AMPUSER/103") return true;
                return false;
            },
            20s))
            << run.log();
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
            if (!dd.count(n)) *missing += "\n  the call after " + numbers_[n];
        return false;
    }

    // The place last sent before `when`.
    std::string place_before(std::chrono::system_clock::time_point when) const {
        std::string place = "start-up";
        for (const auto& [at, name] : sent_)
            if (at <= when) place = name;
        return place;
    }

    std::string frame_faults(bool header_line) {
        std::string out;
        for (const pms_sim::frame& f : run.pms.transcript()) {
            if (!f.incoming) continue;
            std::string fault = record_fault(f.text);
            // A header line in a header before Source is a Source of its
            // own, read first as the Manager protocol says: 102's call.
            if (fault.empty() && field(f.text, "RN") == "102" && f.text.starts_with("PS|") &&
                !(header_line && numbers_.count(field(f.text, "DD"))) &&
                field(f.text, "DD") != bystander_number_)
                fault = "room 102 reached";
            if (!fault.empty())
                out += "\n  " + fault + " after " + place_before(f.when) + ": " + shown(f.text);
        }
        return out;
    }

    std::string notify_faults() {
        std::string out;
        const std::string pid = std::to_string(run.process().pid());
        for (const std::string& m : systemd_.messages())
            for (const std::string& line : lines_of(m)) {
                const std::string name = line.substr(0, line.find('='));
                const std::string value = line.substr(name.size() + (name.size() < line.size()));
                bool ok = (name == "READY" || name == "STOPPING" || name == "WATCHDOG" ||
                           name == "RELOADING")
                              ? value == "1"
                          : name == "STATUS"  ? true
                          : name == "MAINPID" ? value == pid
                                              : name == "MONOTONIC_USEC";
                for (unsigned char c : value) ok = ok && c >= 0x20 && c < 0x7f;
                if (!ok) out += "\n  " + shown(line);
            }
        return out;
    }

    std::string log_faults() const {
        std::string out;
        const std::string log = run.log();
        if (log.find('\r') != std::string::npos) out += "\n  a carriage return";
        for (const std::string& line : lines_of(log))
            if (!line.empty() && line[0] != '\t' && !like(kStamp, line.substr(0, kStamp.size())))
                out += "\n  " + shown(line);
        return out;
    }

    std::set<std::string> tables() {
        std::set<std::string> out;
        for (const auto& row : run.states("select name from sqlite_master where type='table'"))
            out.insert(row[0]);
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
        ASSERT_TRUE(run.start()) << run.log();
        // A wake-up for room 101 rings in a moment; room 102 calls.
        ASSERT_TRUE(run.pms.send_record("WR|RN101|" + local_text("DA%y%m%d|TI%H%M%S|", 2)));
        mgr_cdr_event bystander = call("102", "room 102's call");
        bystander_number_ = bystander.get("Destination");
        ASSERT_EQ(1, run.mgr.send_cdr(bystander));
        manager_phase(p);
        originate_phase(p);
        std::string missing;
        EXPECT_TRUE(posted(&missing)) << "calls lost:" << missing << "\n" << run.log();
        if (mode_ == mode::fixes) {
            ASSERT_TRUE(run.play({"GI|RN102|GNBystander|GLEN|"}, "Bystander")) << run.log();
            ASSERT_TRUE(
                wait_until([&] { return run.mgr.db_get("AMPUSER/102", "cidname").has_value(); }));
        }
        const std::set<std::string> before = tables();
        const sql_rows room102 = mode_ == mode::fixes
                                     ? run.states("select * from occupancy where room='102'")
                                     : sql_rows{};
        pms_phase(p);
        if (mode_ == mode::fixes) {
            // With the fixes the states file stays open: calls go on.
            for (int i = 0; i < 3; ++i) control("the PMS's records");
            EXPECT_TRUE(posted(&missing)) << "calls lost:" << missing << "\n" << run.log();
            EXPECT_EQ(room102, run.states("select * from occupancy where room='102'"));
            EXPECT_EQ("Bystander", run.mgr.db_get("AMPUSER/102", "cidname").value_or("none"));
            for (const char* t : {"rooms", "cdrcache", "occupancy", "outbox"})
                EXPECT_TRUE(tables().count(t)) << t;
        }
        EXPECT_TRUE(run.process().running()) << run.log();
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
        EXPECT_EQ("", notify_faults()) << "the service manager's messages";
        EXPECT_EQ("", log_faults()) << "log lines not the daemon's";
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
    int calls_ = 0;
    std::map<std::string, std::string> numbers_;  // call number -> the place it followed
    texts control_;
    std::string bystander_number_;
    std::vector<std::pair<std::chrono::system_clock::time_point, std::string>> sent_;
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

}  // namespace
