// What the capture tests need beyond support/Process.hpp: programs found on
// PATH (tshark, editcap) and tshark's fields read back as a table.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "support/Process.hpp"

namespace orvtest {

// A program on PATH, or empty.
inline std::string onPath(const std::string& name) {
    std::istringstream dirs(getenv("PATH") != nullptr ? getenv("PATH") : "");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        const std::string path = dir + "/" + name;
        if (access(path.c_str(), X_OK) == 0) return path;
    }
    return "";
}

// Runs tshark with the dissector over a file: one line per frame with the
// fields asked for, tab-separated, repeated values joined by commas.
// `options` are further arguments (preferences). Empty when tshark fails;
// its complaints (a dissector that does not load, say) go to `errors`.
inline std::vector<std::vector<std::string>> tsharkFields(const std::string& tshark, const std::string& dissector,
                                                          const std::string& file,
                                                          const std::vector<std::string>& options,
                                                          const std::vector<std::string>& fields,
                                                          const std::string& scratch, std::string* errors) {
    std::vector<std::string> argv = {tshark, "-n", "-X", "lua_script:" + dissector, "-r", file, "-T", "fields",
                                     "-E", "occurrence=a", "-E", "aggregator=,"};
    argv.insert(argv.end(), options.begin(), options.end());
    for (const std::string& f : fields) {
        argv.push_back("-e");
        argv.push_back(f);
    }
    Process p(argv, scratch + ".out", scratch + ".err");
    const int code = p.wait(60);
    *errors = p.err();
    std::vector<std::vector<std::string>> rows;
    if (code != 0) return rows;
    std::istringstream lines(p.out());
    std::string line;
    while (std::getline(lines, line)) {
        std::vector<std::string> row;
        std::istringstream cells(line);
        std::string cell;
        while (std::getline(cells, cell, '\t')) row.push_back(cell);
        row.resize(fields.size());
        rows.push_back(row);
    }
    return rows;
}

}  // namespace orvtest
