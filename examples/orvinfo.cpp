// Creates an access object and prints what it knows about itself, without
// connecting to anything.
#include <orvaccess/OrvAccess.hpp>

#include <iostream>

int main() {
    OrvAccess access;
    std::cout << "liborvaccess " << access.getVersion() << " (interface built " << access.getBuildDate()
              << ")\n"
              << "library clock: " << access.getTimeUs() << " us\n";
    return 0;
}
