#include "Args.hpp"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <sys/stat.h>

namespace orvargs {

namespace {

// strtod over the whole text: no leading space, nothing after the number.
bool wholeNumber(const std::string& text, double& out) {
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return false;
    char* end = nullptr;
    out = std::strtod(text.c_str(), &end);
    return end != text.c_str() && *end == '\0';
}

CLI::Validator range(double lo, bool includeLo, double hi, const std::string& unit) {
    const std::string words = includeLo ? "a number of " + unit + " from " + numberText(lo) + " to " + numberText(hi)
                                        : "a number of " + unit + " above " + numberText(lo) + ", up to " +
                                              numberText(hi);
    return CLI::Validator(
        [=](std::string& text) -> std::string {
            double v = 0.0;
            const bool ok = wholeNumber(text, v) && std::isfinite(v) && (includeLo ? v >= lo : v > lo) && v <= hi;
            return ok ? std::string() : "\"" + text + "\" is not " + words;
        },
        (includeLo ? numberText(lo) + " to " : "above " + numberText(lo) + ", up to ") + numberText(hi) + " " + unit);
}

class ExpandedFormatter : public CLI::Formatter {
public:
    std::string make_expanded(const CLI::App* sub) const override {
        std::string body = make_positionals(sub) + make_groups(sub, CLI::AppFormatMode::Sub) +
                           make_subcommands(sub, CLI::AppFormatMode::Sub);
        std::string out = "\n" + sub->get_display_name(true) + ": " + sub->get_description() + "\n";
        // Its arguments indented below it; the blank line before each
        // heading stays, so that the heading is not run into the text above.
        std::istringstream lines(body);
        for (std::string line; std::getline(lines, line);) out += line.empty() ? "\n" : "  " + line + "\n";
        return out;
    }
};

}  // namespace

void expandedSubcommandHelp(CLI::App& app) { app.formatter(std::make_shared<ExpandedFormatter>()); }

std::string numberText(double v) {
    std::ostringstream s;
    s.precision(12);
    s << v;
    return s.str();
}

CLI::Validator number(double lo, double hi, const std::string& unit) { return range(lo, true, hi, unit); }

CLI::Validator above(double lo, double hi, const std::string& unit) { return range(lo, false, hi, unit); }

std::string unreadableReason(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return std::strerror(errno);
    if (S_ISDIR(st.st_mode)) return "it is a folder";
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) return std::strerror(errno);
    std::fclose(f);
    return "";
}

CLI::Validator readableFile() {
    return CLI::Validator(
        [](std::string& path) -> std::string {
            const std::string why = unreadableReason(path);
            return why.empty() ? why : "cannot read " + path + ": " + why;
        },
        "FILE");
}

void standard(CLI::App& app, const std::string& name, const std::string& version) {
    app.set_version_flag("--version", name + " " + version, "Print the version and exit");
    app.failure_message([name](const CLI::App*, const CLI::Error& e) {
        return name + ": " + e.what() + "; " + name + " --help lists the options\n";
    });
}

int parse(CLI::App& app, int argc, char** argv) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::RequiredError& e) {
        // A mistyped option also leaves the file or subcommand it stood for
        // missing: name the mistyped option, the cause.
        const std::vector<std::string> stray = app.remaining(true);
        if (!stray.empty()) {
            app.exit(CLI::ExtrasError(stray));
            return kExitUsage;
        }
        return app.exit(e) == 0 ? 0 : kExitUsage;
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : kExitUsage;
    }
    return -1;
}

bool parseUnsigned(const std::string& text, unsigned long max, unsigned long& out) {
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const std::string digits = text.substr(hex ? 2 : 0);
    const char* allowed = hex ? "0123456789abcdefABCDEF" : "0123456789";
    if (digits.empty() || digits.find_first_not_of(allowed) != std::string::npos) return false;
    errno = 0;
    const unsigned long v = std::strtoul(digits.c_str(), nullptr, hex ? 16 : 10);
    if (errno != 0 || v > max) return false;
    out = v;
    return true;
}

}  // namespace orvargs
