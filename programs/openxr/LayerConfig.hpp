// The layer's own settings: which configuration file of the library to
// open, when a pose counts as stale and what to report then, and the
// mounting. They come from a small INI file of the layer's (named by
// ORVACCESS_XR_CONFIG, else $XDG_CONFIG_HOME/orvaccess/openxr.ini, else
// ~/.config/orvaccess/openxr.ini); ORVACCESS_XR_INI overrides the library's
// file. Without any of them the layer opens orvaccess.ini in the working
// directory, as the library does.
#pragma once

#include <string>

#include "openxr/Mount.hpp"

namespace orvxr {

// What a stale or missing pose becomes.
enum class WhenStale {
    Untracked,  // no valid bits: the application keeps its last frame's pose
    Hold,       // the last pose, valid but not tracked
    Runtime,    // the runtime's own pose and flags
};

struct LayerConfig {
    std::string configPath;  // the layer's file that was read ("" when none)
    std::string iniPath = "orvaccess.ini";
    unsigned long staleUs = 100000;
    WhenStale whenStale = WhenStale::Untracked;
    bool relativeToPlatform = false;
    MountSettings mount;
};

// Reads the settings from the environment and the layer's file. False with
// `error` naming the file, the line's key and what is wrong; the settings
// are then not to be used.
bool readLayerConfig(LayerConfig& out, std::string& error);

// The same from a given file (empty: none) and library path override
// (empty: none); relative library paths are taken from the file's folder.
bool readLayerConfigFile(const std::string& path, const std::string& iniOverride, LayerConfig& out,
                         std::string& error);

const char* whenStaleName(WhenStale w);

}  // namespace orvxr
