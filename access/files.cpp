// Files to and from orvRx over the command channel.
//
// The transfers arrive with the file issue; until then they refuse.
#include "access/State.hpp"

bool OrvAccess::putFile(std::string /*localPath*/, std::string /*remoteName*/,
                        e_OrvAccessFileLoc /*location*/) {
    return false;
}

bool OrvAccess::getFile(std::string /*remoteName*/, e_OrvAccessFileLoc /*location*/,
                        std::string /*localPath*/) {
    return false;
}
