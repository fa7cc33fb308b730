// The simulator on fresh ports in a thread of its own, with the INI file
// that configures it and the library alike, for tests that run the tools
// against it.
#pragma once

#include <atomic>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "orvsim/Simulator.hpp"
#include "support/TestSupport.hpp"

namespace orvtest {

// A simulator running in a thread of its own until stop(), which sends what
// reordering held back; its report may be read after that.
class SimThread {
public:
    ~SimThread() { stop(); }

    bool start(const orvsim::SimConfig& cfg) {
        sim_.reset(new orvsim::Simulator(cfg));
        if (!sim_->open()) {
            ADD_FAILURE() << sim_->lastError();
            return false;
        }
        stop_ = false;
        thread_ = std::thread([this] { sim_->run(0.0, &stop_); });
        return true;
    }

    orvsim::SimReport stop() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        if (sim_) sim_->close();
        return sim_ ? sim_->report() : orvsim::SimReport{};
    }

    // The running simulator; only for what is safe while it runs (its
    // motion, or registers read after stop()).
    orvsim::Simulator& sim() { return *sim_; }

private:
    std::unique_ptr<orvsim::Simulator> sim_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class SimRunner {
public:
    // Ports of the INI file, by key.
    static constexpr const char* kPortKeys[] = {"tcpOrvRxPort",      "udpOrvRxPort",   "udpOrvRxImgPort",
                                                "udpOrvRxInputPort", "udpOrvCorePort", "udpOrvHubPort",
                                                "udpNftPort"};

    // Writes dir/orvaccess.ini with fresh ports and a fresh shared-memory
    // name, then `extra`. The simulator is not started yet.
    explicit SimRunner(const TempDir& dir, const std::string& extra = "") {
        static int n = 0;
        std::ostringstream ini;
        ini << "[Communication]\ntcpOrvRxAddr = 127.0.0.1\n";
        for (const char* key : kPortKeys) {
            const int p = freePort();
            ports_.emplace_back(key, p);
            ini << key << " = " << p << "\n";
        }
        ini << "sMemImgName = orvTool" << getpid() << "_" << n++ << "\n" << extra;
        ini_ = dir.write("orvaccess.ini", ini.str());
        files_ = dir.path() / "files";
        std::filesystem::create_directories(files_);
    }
    ~SimRunner() { stop(); }
    SimRunner(const SimRunner&) = delete;
    SimRunner& operator=(const SimRunner&) = delete;

    // Starts the simulator on the INI file; `tune` may change its settings.
    bool start(void (*tune)(orvsim::SimConfig&) = nullptr) {
        orvsim::SimConfig cfg;
        std::string error;
        if (!orvsim::SimConfig::fromIni(ini_, cfg, error)) {
            ADD_FAILURE() << error;
            return false;
        }
        cfg.fileFolder = files_.string();
        if (tune != nullptr) tune(cfg);
        return thread_.start(cfg);
    }

    // Stops the simulator; what it sent and received, as SimThread::stop().
    orvsim::SimReport stop() { return thread_.stop(); }

    int port(const std::string& key) const {
        for (const auto& [k, p] : ports_)
            if (k == key) return p;
        return 0;
    }
    const std::string& ini() const { return ini_; }
    // The folder the simulator's get and put file work on.
    const std::filesystem::path& files() const { return files_; }

private:
    std::string ini_;
    std::filesystem::path files_;
    std::vector<std::pair<std::string, int>> ports_;
    SimThread thread_;
};

}  // namespace orvtest
