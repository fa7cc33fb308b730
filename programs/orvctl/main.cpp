// orvctl: talks to a tracking system through liborvaccess's public
// interface: its status, orvRx's registers, streaming, IMU transactions and
// files, the error codes, and a check of the configuration and the machine.
#include <CLI/CLI.hpp>

#include <iostream>
#include <string>
#include <vector>

#include "Args.hpp"
#include "Commands.hpp"

namespace {

constexpr const char* kFooter =
    "Exit status: 0 success; 1 the command failed (orvRx refused or did not answer, a channel did not open, "
    "check found problems, errors arrived); 2 bad arguments or unreadable configuration file; 3 no connection "
    "(the library could not open, or orvRx's command channel is not up).\n"
    "Every command opens the library, and opening switches orvRx's streaming off for every receiver. When a "
    "program on this machine receives orvRx's streams (orvmon, orvbridge), every command but stream switches "
    "streaming back on afterwards and says so (reg set of register 0 leaves it as asked); "
    "'orvctl stream on' switches it on for receivers elsewhere, whose watchdog also asks again by itself. "
    "Commands other than status and errors leave the data ports alone.";

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"orvctl: commands and diagnostics for an orv tracking system, through liborvaccess"};
    orvargs::standard(app, "orvctl", ORVA_TOOL_VERSION);
    orvargs::expandedSubcommandHelp(app);
    // The main options may stand after the subcommand as well.
    app.fallthrough();
    app.footer(kFooter);
    app.set_help_all_flag("--help-all", "Print the help of every subcommand too, and exit");
    app.require_subcommand(1);
    orvctl::Options o;
    app.add_option("--ini", o.ini, "configuration file of the library")->capture_default_str();
    app.add_option("--timeout", o.timeoutMs, "how long a register command waits for orvRx, ms")
        ->capture_default_str()
        ->check(orvargs::number(1, 60000, "milliseconds"));
    unsigned int location = 0;
    app.add_option("--location", location, "get and put: orvRx's storage location")
        ->capture_default_str()
        ->check(orvargs::number(0, 255, "location"));
    app.add_flag("-v,--verbose", o.verbose, "print the library's connection lines");

    double statusListen = 1.0, errorsListen = 2.0;
    CLI::App* status = app.add_subcommand(
        "status", "connections, status words, streaming, orvRx's state, and each channel's open result");
    status->add_flag("--json", o.json, "print JSON");
    status->add_option("--listen", statusListen, "seconds to receive before reporting; 0: only open")
        ->capture_default_str()
        ->check(orvargs::number(0, 3600, "seconds"));

    bool noProbe = false;
    CLI::App* check = app.add_subcommand(
        "check", "the configuration as the library reads it, who holds its ports, and whether orvRx answers");
    check->add_flag("--json", o.json, "print JSON");
    check->add_flag("--no-probe", noProbe, "do not look up orvRx's address or its command port");

    std::string address, value, first = "0", count = "16";
    CLI::App* reg = app.add_subcommand("reg", "read and write orvRx's registers (24-bit addresses, byte values)");
    reg->require_subcommand(1);
    CLI::App* regGet = reg->add_subcommand("get", "ADDRESS: read one register");
    regGet->add_option("ADDRESS", address, "decimal, or hexadecimal after 0x")->required();
    CLI::App* regSet = reg->add_subcommand("set", "ADDRESS VALUE: write one register");
    regSet->add_option("ADDRESS", address, "decimal, or hexadecimal after 0x")->required();
    regSet->add_option("VALUE", value, "0 to 255, decimal or 0x hex")->required();
    CLI::App* regDump = reg->add_subcommand("dump", "[FIRST [COUNT]]: read a range of registers, 16 to a line");
    regDump->add_option("FIRST", first, "first address")->capture_default_str();
    regDump->add_option("COUNT", count, "how many")->capture_default_str();

    std::string state;
    CLI::App* stream = app.add_subcommand("stream", "switch orvRx's data streaming on or off (register 0)");
    stream->add_option("STATE", state, "on or off")->required()->check(CLI::IsMember({"on", "off"}));

    bool platform = false;
    unsigned int receive = 16, imuTimeout = 100;
    std::vector<std::string> txBytes;
    CLI::App* imu = app.add_subcommand("imu", "one IMU transaction: send bytes, print the bytes that come back");
    imu->add_flag("--platform", platform, "the platform IMU instead of the camera IMU");
    imu->add_option("--receive", receive, "bytes to read back")->capture_default_str()->check(
        orvargs::number(0, 255, "bytes"));
    imu->add_option("--imu-timeout", imuTimeout, "time-out byte passed to orvRx")
        ->capture_default_str()
        ->check(orvargs::number(0, 255, "time-out units"));
    imu->add_option("BYTES", txBytes, "bytes to send, hexadecimal (6b or 0x6b)");

    std::string remote, local;
    CLI::App* get = app.add_subcommand("get", "fetch a file from orvRx; a local file is replaced only by a whole one");
    get->add_option("REMOTE", remote, "name on orvRx")->required();
    get->add_option("LOCAL", local, "where to write it (default: the remote name's last part, here)");
    CLI::App* put = app.add_subcommand("put", "send a file to orvRx");
    put->add_option("LOCAL", local, "the file to send")->required()->check(CLI::ExistingFile);
    put->add_option("REMOTE", remote, "name on orvRx (default: the local name's last part)");

    CLI::App* errors = app.add_subcommand("errors", "receive for a while and print every error code with its "
                                                    "message; exits 1 when any arrived");
    errors->add_option("--listen", errorsListen, "seconds to receive")->capture_default_str()->check(
        orvargs::number(0, 3600, "seconds"));

    if (const int rc = orvargs::parse(app, argc, argv); rc >= 0) return rc;

    try {
        if (*status) return orvctl::runStatus(o, statusListen);
        if (*check) return orvctl::runCheck(o, !noProbe);
        if (*regGet) return orvctl::runRegGet(o, address);
        if (*regSet) return orvctl::runRegSet(o, address, value);
        if (*regDump) return orvctl::runRegDump(o, first, count);
        if (*stream) return orvctl::runStream(o, state == "on");
        if (*imu) return orvctl::runImu(o, platform, receive, imuTimeout, txBytes);
        if (*get) return orvctl::runGet(o, remote, local, location);
        if (*put) return orvctl::runPut(o, local, remote, location);
        if (*errors) return orvctl::runErrors(o, errorsListen);
    } catch (const std::exception& e) {
        std::cerr << "orvctl: " << e.what() << "\n";
        return orvctl::kExitFailed;
    }
    return orvctl::kExitUsage;
}
