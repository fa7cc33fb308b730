#include <orvaccess/OrvAccess.hpp>

#include <iostream>

int main() {
    OrvAccess access;
    if (access.getVersion() != "1.23.00") return 1;
    std::cout << "C++ consumer: liborvaccess " << access.getVersion() << "\n";
    return 0;
}
