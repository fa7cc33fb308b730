#include "openxr/LayerConfig.hpp"

// Debian's header keeps its template bodies behind SI_IMPLEMENTATION.
#define SI_NO_CONVERSION
#define SI_IMPLEMENTATION
#include <SimpleIni.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <list>

namespace orvxr {

namespace {

using IniFile = CSimpleIniTempl<char, SI_GenericNoCase<char>, SI_ConvertA<char>>;

struct Key {
    const char* section;
    const char* name;
};

// Every key the layer knows, so that a misspelt one is named, not ignored.
constexpr Key kKeys[] = {
    {"Layer", "ini"},      {"Layer", "staleMs"},  {"Layer", "whenStale"}, {"Layer", "relativeToPlatform"},
    {"Mount", "rollRad"},  {"Mount", "pitchRad"}, {"Mount", "yawRad"},    {"Mount", "xM"},
    {"Mount", "yM"},       {"Mount", "zM"},       {"Display", "rollRad"}, {"Display", "pitchRad"},
    {"Display", "yawRad"}, {"Display", "xM"},     {"Display", "yM"},      {"Display", "zM"},
};

bool known(const char* section, const char* name) {
    for (const Key& k : kKeys)
        if (strcasecmp(k.section, section) == 0 && strcasecmp(k.name, name) == 0) return true;
    return false;
}

class Reader {
public:
    Reader(const IniFile& ini, const std::string& path, std::string& error)
        : ini_(ini), path_(path), error_(error) {}

    bool real(const char* section, const char* key, double& out) {
        const char* v = ini_.GetValue(section, key, nullptr);
        if (v == nullptr) return true;
        char* end = nullptr;
        errno = 0;
        const double d = std::strtod(v, &end);
        if (end == v || *end != '\0' || errno != 0 || !std::isfinite(d))
            return fail(section, key, v, "a number (e.g. 0.25)");
        out = d;
        return true;
    }
    bool text(const char* section, const char* key, std::string& out) {
        const char* v = ini_.GetValue(section, key, nullptr);
        if (v != nullptr) out = v;
        return true;
    }
    bool fail(const char* section, const char* key, const char* value, const char* wanted) {
        error_ = path_ + ": [" + section + "] " + key + " = \"" + value + "\" is not " + wanted;
        return false;
    }

private:
    const IniFile& ini_;
    const std::string& path_;
    std::string& error_;
};

std::string defaultConfigPath() {
    if (const char* x = std::getenv("XDG_CONFIG_HOME"); x != nullptr && *x != '\0')
        return std::string(x) + "/orvaccess/openxr.ini";
    if (const char* h = std::getenv("HOME"); h != nullptr && *h != '\0')
        return std::string(h) + "/.config/orvaccess/openxr.ini";
    return "";
}

}  // namespace

const char* whenStaleName(WhenStale w) {
    switch (w) {
        case WhenStale::Hold:
            return "hold";
        case WhenStale::Runtime:
            return "runtime";
        case WhenStale::Untracked:
            break;
    }
    return "untracked";
}

bool readLayerConfigFile(const std::string& path, const std::string& iniOverride, LayerConfig& out,
                         std::string& error) {
    out = LayerConfig{};
    if (!path.empty()) {
        IniFile ini(false, false, false);
        std::FILE* f = std::fopen(path.c_str(), "rb");
        if (f == nullptr) {
            error = path + ": " + std::strerror(errno) +
                    " (set ORVACCESS_XR_CONFIG to the layer's settings file)";
            return false;
        }
        const SI_Error rc = ini.LoadFile(f);
        std::fclose(f);
        if (rc < 0) {
            error = path + ": not an INI file the layer can read";
            return false;
        }
        out.configPath = path;
        std::list<IniFile::Entry> sections, keys;
        ini.GetAllSections(sections);
        for (const auto& s : sections) {
            ini.GetAllKeys(s.pItem, keys);
            for (const auto& k : keys) {
                if (!known(s.pItem, k.pItem)) {
                    error =
                        path + ": unknown key [" + s.pItem + "] " + k.pItem +
                        " (known: [Layer] ini, staleMs, whenStale, relativeToPlatform; [Mount] and [Display] "
                        "rollRad, pitchRad, yawRad, xM, yM, zM)";
                    return false;
                }
            }
        }
        Reader r(ini, path, error);
        std::string iniPath, when;
        double staleMs = static_cast<double>(out.staleUs) / 1000.0;
        if (!r.text("Layer", "ini", iniPath) || !r.real("Layer", "staleMs", staleMs) ||
            !r.text("Layer", "whenStale", when))
            return false;
        if (!(staleMs > 0.0 && staleMs < 1e9))
            return r.fail("Layer", "staleMs", ini.GetValue("Layer", "staleMs", ""), "a time above 0 ms");
        out.staleUs = static_cast<unsigned long>(std::llround(staleMs * 1000.0));
        if (!when.empty()) {
            if (strcasecmp(when.c_str(), "untracked") == 0)
                out.whenStale = WhenStale::Untracked;
            else if (strcasecmp(when.c_str(), "hold") == 0)
                out.whenStale = WhenStale::Hold;
            else if (strcasecmp(when.c_str(), "runtime") == 0)
                out.whenStale = WhenStale::Runtime;
            else
                return r.fail("Layer", "whenStale", when.c_str(), "untracked, hold or runtime");
        }
        if (const char* v = ini.GetValue("Layer", "relativeToPlatform", nullptr); v != nullptr) {
            // The words the library's own file takes for a switch.
            const auto is = [v](std::initializer_list<const char*> words) {
                for (const char* w : words)
                    if (strcasecmp(v, w) == 0) return true;
                return false;
            };
            if (is({"true", "1", "yes", "on"}))
                out.relativeToPlatform = true;
            else if (is({"false", "0", "no", "off"}))
                out.relativeToPlatform = false;
            else
                return r.fail("Layer", "relativeToPlatform", v, "true or false (or yes, no, on, off, 1, 0)");
        }
        const char* names[] = {"rollRad", "pitchRad", "yawRad", "xM", "yM", "zM"};
        for (int i = 0; i < 6; ++i) {
            double* mount = i < 3 ? &out.mount.mountRpyRad[i] : &out.mount.mountXyzM[i - 3];
            double* display = i < 3 ? &out.mount.displayRpyRad[i] : &out.mount.displayXyzM[i - 3];
            if (!r.real("Mount", names[i], *mount) || !r.real("Display", names[i], *display)) return false;
        }
        if (!iniPath.empty()) {
            // A relative path belongs to the folder of the file that names it.
            const std::filesystem::path p(iniPath);
            out.iniPath =
                p.is_absolute() ? iniPath : (std::filesystem::path(path).parent_path() / p).string();
        }
    }
    if (!iniOverride.empty()) out.iniPath = iniOverride;
    return true;
}

bool readLayerConfig(LayerConfig& out, std::string& error) {
    const char* env = std::getenv("ORVACCESS_XR_CONFIG");
    std::string path = env != nullptr ? env : "";
    if (path.empty()) {
        // The default file is optional; a named one is not.
        const std::string fallback = defaultConfigPath();
        if (!fallback.empty() && std::filesystem::exists(fallback)) path = fallback;
    }
    const char* ini = std::getenv("ORVACCESS_XR_INI");
    return readLayerConfigFile(path, ini != nullptr ? ini : "", out, error);
}

}  // namespace orvxr
