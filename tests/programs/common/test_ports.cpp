// The endpoints a configuration file names, as the simulator and the
// capture tools take them: real files, the library's own reader.
#include <string>

#include <gtest/gtest.h>

#include "IniPorts.hpp"
#include "support/TestSupport.hpp"

using orvports::Endpoints;

namespace {

std::string portsOf(const Endpoints& e) {
    return e.address + " tcp " + std::to_string(e.tcpPort) + " meta " + std::to_string(e.metaPort) + " image " +
           std::to_string(e.imagePort) + " input " + std::to_string(e.inputPort) + " core " +
           std::to_string(e.corePort) + " hub " + std::to_string(e.hubPort) + " nft " + std::to_string(e.nftPort) +
           " shm \"" + e.sharedMemName + "\" mode " + std::to_string(e.sharedMemMode);
}

}  // namespace

TEST(IniPorts, AFileWithoutPortsGivesTheLibrarysDefaults) {
    orvtest::TempDir dir;
    Endpoints e;
    e.metaPort = 1;  // every field is read, none kept from before
    e.sharedMemMode = 0;
    std::string error;
    for (const std::string& path : {(dir.path() / "missing.ini").string(), dir.write("empty.ini", "")}) {
        ASSERT_TRUE(orvports::fromIni(path, e, error)) << error;
        // The defaults of the keys' table, orvRx on this machine.
        EXPECT_EQ(portsOf(e), portsOf(Endpoints{}));
    }
}

TEST(IniPorts, SwitchedOffChannelsAndTheirOwnValues) {
    orvtest::TempDir dir;
    const std::string path = dir.write("set.ini",
                                       "[Communication]\ntcpOrvRxAddr = 127.0.0.2\ntcpOrvRxPort = 6000\n"
                                       "tcpOrvRxEnabled = off\nudpOrvRxPort = 6001\nudpOrvRxImgPort = 0\n"
                                       "udpOrvRxInputPort = 6004\nudpOrvCorePort = 6002\nudpOrvHubPort = 6006\n"
                                       "udpNftPort = 0\nsMemImgName =\nsMemImgMode = 0600\n");
    Endpoints e;
    std::string error;
    ASSERT_TRUE(orvports::fromIni(path, e, error)) << error;
    EXPECT_EQ(portsOf(e), "127.0.0.2 tcp 0 meta 6001 image 0 input 6004 core 6002 hub 6006 nft 0 shm \"\" mode 384");
}

TEST(IniPorts, AnUnusablePortOrAddressIsNamedAndChangesNothing) {
    orvtest::TempDir dir;
    const struct {
        const char* text;
        const char* error;
    } cases[] = {
        {"[Communication]\nudpNftPort = 70000\n", "Bad port for udpNftPort: \"70000\""},
        {"[Communication]\nudpOrvRxPort = 50O1\n", "Bad port for udpOrvRxPort: \"50O1\""},
        {"[Communication]\ntcpOrvRxPort = -1\n", "Bad port for tcpOrvRxPort: \"-1\""},
        {"[Communication]\nudpOrvHubPort =\n", "Bad port for udpOrvHubPort: \"\""},
        {"[Communication]\ntcpOrvRxAddr = *\n", "Cannot use the address \"*\""},
        {"[Communication]\ntcpOrvRxAddr = 255.255.255.255\n", "Cannot use the address \"255.255.255.255\""},
        {"[Communication]\ntcpOrvRxAddr = 0.0.0.0\n", "Cannot use the address \"0.0.0.0\""},
        {"[Communication]\nsMemImgMode = 0668\n",
         "sMemImgMode = \"0668\" is not a mode: write octal permission bits such as 0600"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        Endpoints e;
        e.metaPort = 1;
        e.address = "kept";
        std::string error;
        EXPECT_FALSE(orvports::fromIni(dir.write("bad.ini", c.text), e, error));
        EXPECT_EQ(error, c.error);
        EXPECT_EQ(e.metaPort, 1);
        EXPECT_EQ(e.address, "kept");
    }
}
