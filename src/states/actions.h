// The Manager actions waiting to be sent or answered: the `actions` table of
// the states file, kept in order across restarts (states.h). The table is
// made when first used.
#pragma once

#include <string>
#include <vector>

#include "states/connection.h"

class action_queue {
  public:
    explicit action_queue(states_connection& own) : own_(own) {}

    // At most max_queued actions are kept: queuing one more drops the oldest,
    // with an ERROR.
    static constexpr int max_queued = 10000;
    struct action {
        long id = 0;  // increasing, also across restarts
        std::string room;
        std::string name;  // the action
        std::string body;  // its header lines after the ActionID, with their line ends
        int sent = 0;      // how often it went out
    };
    // Queues an action; its id, or -1 when the file cannot be written.
    long queue(const std::string& room, const std::string& name, const std::string& body);
    int sent(long id);
    int done(long id);
    // Every queued action, in order.
    int all(std::vector<action>& out);
    // How many are queued; -1 when the file cannot be read (nothing logged).
    int count();

  private:
    friend class states_file;
    // open() inside a transaction on this store's connection.
    bool open(states_transaction& tx) {
        tx.holds(own_);
        return open();
    }
    bool open() REQUIRES(own_.drv);

    states_connection& own_;
    bool checked_ GUARDED_BY(own_.drv) = false;
};
