#include "states/rooms.h"

#include <ctime>

#include "db/sqlite.h"

int rooms_store::store(const std::string& room, bool close_after, bool true_stamps) {
    char stamp[32] = "";
    char empty[32] = "";
    const time_t now = time(nullptr);
    struct tm tmv {};
    localtime_r(&now, &tmv);
    db_lock guard(main_.drv);
    strftime(stamp, sizeof stamp, main_.drv.dateformat, &tmv);
    strftime(true_stamps ? empty : stamp, sizeof stamp, main_.drv.timeformat, &tmv);
    if (!main_.connect()) return -1;
    if (sqlite_query_bound(main_.drv, "replace into rooms values (?,?,?,0)",
                           {room, stamp, empty}) == 0)
        version_++;
    if (close_after) main_.drv.close();
    return 0;
}

int rooms_store::remove(const std::string& room) {
    db_lock guard(main_.drv);
    if (!main_.connect()) return -1;
    if (sqlite_query_bound(main_.drv, "delete from rooms where room=?", {room}) == 0) version_++;
    return 0;
}

int rooms_store::list(std::vector<std::string>& rooms, bool connect_first) {
    db_lock guard(main_.drv);
    if (connect_first && !main_.connect()) return -1;
    const int rc = sqlite_query_bound(main_.drv, "select room from rooms", {});
    if (rc == 0) {
        while (main_.drv.fetch_row() == 0) {
            std::string room;
            main_.drv.fetch_text_field(0, room);
            rooms.push_back(std::move(room));
        }
    }
    main_.drv.free_result();
    return rc == 0 ? 0 : -2;
}
