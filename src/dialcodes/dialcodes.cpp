#include "dialcodes/dialcodes.h"

#include <strings.h>

#include <algorithm>
#include <memory>

#include "fias/codec.h"
#include "logger.h"

namespace {

constexpr size_t max_number_digits = 9;  // fits the 32 bits of a number field
constexpr size_t max_text = 40;          // an article or a maid's id

bool is_number(const std::string& s) {
    return !s.empty() && s.size() <= max_number_digits &&
           std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// A text that can stand in a record field: no separator, no control character.
bool is_field_text(const std::string& s) {
    return s.size() <= max_text && std::none_of(s.begin(), s.end(), [](char c) {
               return c == '|' || static_cast<unsigned char>(c) < ' ';
           });
}

bool is_named(const opt_text& name, const char* event) {
    return name && strcasecmp(name->c_str(), event) == 0;
}

fias_value_t text_value(const std::string& text) {
    fias_value_t v;
    v.str = text;
    return v;
}

}  // namespace

dialcode_event read_dialcode_event(const config& cfg, const std::vector<std::string>& rooms,
                                   const message& m) {
    dialcode_event e;
    const char* name = mgr_get_header(m, "UserEvent");
    if (is_named(cfg.dialcodes.minibar_event, name))
        e.kind = dialcode_event::minibar;
    else if (is_named(cfg.dialcodes.maid_event, name))
        e.kind = dialcode_event::maid;
    else
        return e;
    const std::string named = mgr_get_header(m, "Room");
    e.room = cfg.room_of(named);
    if (named.empty())
        e.error = "no Room";
    else if (std::find(rooms.begin(), rooms.end(), e.room) == rooms.end())
        e.error = "unknown room \"" + named + "\"";
    if (!e.error.empty()) return e;
    if (e.kind == dialcode_event::minibar) {
        e.article = mgr_get_header(m, "Article");
        e.quantity = mgr_get_header(m, "Quantity");
        e.amount = mgr_get_header(m, "Amount");
        if (e.article.empty() || !is_field_text(e.article))
            e.error = "article \"" + e.article + "\" is no article code";
        else if (!is_number(e.quantity) || std::stoul(e.quantity) == 0)
            e.error = "quantity \"" + e.quantity + "\" is not a number of items";
        else if (!e.amount.empty() && !is_number(e.amount))
            e.error = "amount \"" + e.amount + "\" is not a number";
    } else {
        e.status = mgr_get_header(m, "Status");
        e.maid_id = mgr_get_header(m, "MaidId");
        if (e.status.size() != 1 || e.status[0] < '1' || e.status[0] > '6')
            e.error = "status \"" + e.status + "\" is not 1-6";
        else if (!is_field_text(e.maid_id))
            e.error = "maid id \"" + e.maid_id + "\" cannot be sent";
    }
    return e;
}

std::string dialcode_record(const dialcode_event& e, const std::string& seq, const struct tm& now) {
    const bool minibar = e.kind == dialcode_event::minibar;
    fias_packet_ptr rec = fias_create_packet(minibar ? FIAS_PS : FIAS_RE);
    if (!rec) return {};
    auto set = [&](const char* field, const fias_value_t& v) {
        fias_set_packet_field(rec.get(), field, &v);
    };
    set("RN", text_value(e.room));
    if (minibar) {
        set("P#", text_value(seq));
        set("PT", text_value("M"));
        if (!e.amount.empty()) {
            fias_value_t ta;
            ta.ival = static_cast<uint32_t>(std::stoul(e.amount));
            set("TA", ta);
        }
        fias_value_t da, ti;
        da.date = {static_cast<uint8_t>(now.tm_year % 100), static_cast<uint8_t>(now.tm_mon + 1),
                   static_cast<uint8_t>(now.tm_mday), 0};
        ti.time = {static_cast<uint8_t>(now.tm_hour), static_cast<uint8_t>(now.tm_min),
                   static_cast<uint8_t>(now.tm_sec), 0};
        set("DA", da);
        set("TI", ti);
        set("MA", text_value(e.article));
        set("M#", text_value(std::to_string(std::stoul(e.quantity))));
    } else {
        set("RS", text_value(e.status));
        if (!e.maid_id.empty()) set("ID", text_value(e.maid_id));
    }
    // Numbers go out as they are.
    return fias_packet_to_str(rec.get(), fias_codec_options{true});
}

void attach_dialcodes(mgr_session& session, config_ptr cfg, const outbox_parts& parts,
                      posting_sequence& sequence) {
    session.subscribe("UserEvent", [cfg, parts, &sequence](const message& m) {
        const char* name = mgr_get_header(m, "UserEvent");
        if (!is_named(cfg->dialcodes.minibar_event, name) &&
            !is_named(cfg->dialcodes.maid_event, name))
            return;  // another program's event
        std::vector<std::string> rooms;
        if (parts.states.rooms().list(rooms) != 0)
            LOG(L_ERROR, "The rooms of the states file cannot be read");
        const dialcode_event e = read_dialcode_event(*cfg, rooms, m);
        if (e.kind == dialcode_event::none) return;
        const char* what = e.kind == dialcode_event::minibar ? "Minibar" : "Room status";
        if (!e.error.empty()) {
            LOG(L_ERROR, "%s event \"%s\" dropped: %s", what, name, e.error.c_str());
            return;
        }
        const time_t t = time(nullptr);
        struct tm now {};
        localtime_r(&t, &now);
        states_file::outbox_entry entry;
        entry.room = e.room;
        if (e.kind == dialcode_event::minibar) {
            entry.kind = "PS";
            entry.seq = sequence.next();
            entry.mark_key = minibar_outbox_key;
            entry.number = e.article;
            LOG(L_NOTICE, "Minibar of room %s: article %s, quantity %s%s%s (P#%s)", e.room.c_str(),
                e.article.c_str(), e.quantity.c_str(), e.amount.empty() ? "" : ", amount ",
                e.amount.c_str(), entry.seq.c_str());
        } else {
            entry.kind = "RE";
            LOG(L_NOTICE, "Room status of room %s: %s%s%s", e.room.c_str(), e.status.c_str(),
                e.maid_id.empty() ? "" : ", maid ", e.maid_id.c_str());
        }
        char date[16], clock[16];
        strftime(date, sizeof date, "%Y-%m-%d", &now);
        strftime(clock, sizeof clock, "%H:%M:%S", &now);
        entry.date = date;
        entry.time = clock;
        entry.record = dialcode_record(e, entry.seq, now);
        deliver(parts, entry);
    });
}
