// What a support engineer finds in the log after a poll.

#include "../platform/ForkedChild.h"
#include "Workplace.h"

#include <regex>
#include <sstream>

namespace {

TEST(ALoggedPoll, LeavesReadableRecordsAndNothingElse) {
    TempDirectory directory;
    directory.write("data/conf/QVLReader.ini", "[LOGSERVICE]\nLOGENABLE=1\nLOGLEVEL=5\nLOGPATH=" + directory.path() +
                                                   "/log\n[/LOGSERVICE]\n[READER]\nSERIAL_PORT=77\n[/READER]\n");
    const std::string captured = directory / "stdout";
    ForkedChild child([&] {  // the log reads its settings once a process
        if (std::freopen(captured.c_str(), "w", stdout) == nullptr) return 3;
        Workplace place(Line::terminal);
        IniManager::instance().setDirectoryAndReload((directory / "data/conf").c_str());
        IniManager::instance().loadAndReplace("QVLReader.ini");
        place.start();
        place.placeClassic();
        const bool found = place.poll() == "deadbeef 2002" && place.poll().empty();
        place.spoil(Op::fieldReset, "1 no ack");
        place.poll(true);
        place.adaptor.reset();
        std::fflush(stdout);
        return found ? 0 : 4;
    });
    ASSERT_EQ(child.wait(), 0);
    EXPECT_EQ(directory.read("stdout"), "") << "the library keeps off the standard output";

    const std::string log = directory.read("log/rdrlog0000.txt");
    const std::regex record(R"(\[\d{4} \d\d \d\d \d\d:\d\d:\d\d:\d{3}\] \[[ESVDMH]\] \[Line:\d+ @ \w+\.(cpp|h)\] .*)");
    std::istringstream lines(log);
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line.front(), '\t') << "the notice";
    int records = 0;
    while (std::getline(lines, line)) {
        // Some of the system's own texts hold line ends; their second halves begin with no time.
        if (line.empty() || line.front() != '[') continue;
        EXPECT_TRUE(std::regex_match(line, record)) << line;
        ++records;
    }
    EXPECT_GE(records, 15);
    std::size_t at = 0;
    const bool isMf500 = isMf500UnderTest();
    for (const char* text : {
             "QvlMf500ReaderImpl mUSBFileIO.scanForDevices return 0",
             isMf500 ? "Cannot access the usbdll file" : "QvlMf500ReaderImpl ------------instantiates NFCTAMABFL",
             "QvlMf500ReaderImpl::successfully create an adaptor instance - QvlMf500ReaderImpl.",
             "Poll tag entering forced=0 ignoreSuspend=0",
             "QVLReader initialization: interface successfully opened.",
             "initReader() Turn on the LED:   mLED=255 ctrl=false dur=255",
             isMf500 ? "Mf500bfl::piccActivateIdle get param  uid_len=4"
                     : "NfcTamaBfl::piccActivateIdle - no tag found, failed to get a TagId!",
             isMf500 ? "" : "expecting an ACK frame, but 0x0000ff02fed533****",
             isMf500 ? "Desctruter mLED=1 ctrl=true dur=1" : "npcdRfReset(): switch trun off ALL LED with duration=0",
         }) {
        at = log.find(text, at);
        ASSERT_NE(at, std::string::npos) << text << "\n" << log;
    }
    // An empty field is told as a failure, each time it was looked at.
    const char* const nothingThere = isMf500 ? "failed -1" : "failed to get a TagId!";
    EXPECT_EQ(log.find("failed"), log.find(nothingThere)) << "nothing else failed";
}

}  // namespace
