#include "support_daemon.h"

ini_file& ini_file::set(const std::string& section, const std::string& key,
                        const std::string& value) {
    for (auto& [name, keys] : sections_) {
        if (name != section) continue;
        for (auto& kv : keys)
            if (kv.first == key) {
                kv.second = value;
                return *this;
            }
        keys.emplace_back(key, value);
        return *this;
    }
    sections_.push_back({section, {{key, value}}});
    return *this;
}

ini_file& ini_file::unset(const std::string& section, const std::string& key) {
    for (auto& [name, keys] : sections_)
        if (name == section)
            std::erase_if(keys, [&](const auto& kv) { return kv.first == key; });
    return *this;
}

std::string ini_file::text() const {
    std::string out;
    for (const auto& [name, keys] : sections_) {
        out += "[" + name + "]\n";
        for (const auto& [k, v] : keys) out += k + " = " + v + "\n";
        out += "\n";
    }
    return out;
}

daemon_run::daemon_run(int pms_port) {
    config_.set("pms", "host", "127.0.0.1")
        .set("pms", "port", std::to_string(pms_port))
        .set("pms", "interface", "PB")
        .set("pms", "statesfile", states_file())
        .set("logger", "log_level", "5")
        .set("logger", "log_file", dir_.file("orlanbeck.log"))
        .set("pbx", "dbdriver", "sqlite")
        .set("pbx", "database", pbx_file());
}

daemon_run::~daemon_run() { proc_.stop(); }

void daemon_run::write_config() { write_file(config_path(), config_.text()); }

bool daemon_run::start() {
    write_config();
    return proc_.start({orlanbeck_binary(), "-f", "-d", "-c", config_path()});
}

std::string daemon_run::log_after(const std::string& marker) const {
    std::string out = log();
    size_t pos = out.find(marker);
    return pos == std::string::npos ? std::string() : out.substr(pos);
}
