#pragma once

#include "EndpointServer.h"
#include "Simulator.h"

#include <cstddef>
#include <map>
#include <memory>
#include <string>

/// Reads line commands from standard input and from the hosts of a stream socket, and answers each where it came from.
/// Ends on "quit", on SIGINT and SIGTERM, and, if so told, with standard input.
class ControlServer {
  public:
    /// Blocks the two signals for the whole process, so make it before any thread starts.
    ControlServer(Simulator& simulator, bool endsWithInput);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    /// Publishes the socket. A socket that nobody serves any more is replaced. @return empty or what went wrong.
    std::string listen(const std::string& path);
    /// Serves until the end.
    void run();

  private:
    struct Peer {
        int out;
        std::string pending;  ///< What came behind the last newline.
    };

    bool readPeer(int descriptor, Peer& peer);
    void takeLines(Peer& peer);
    void acceptPeer();

    Simulator& mSimulator;
    const bool mEndsWithInput;
    bool mInputOpen = true;
    std::string mPath;
    Descriptor mSignals;
    Descriptor mListener;
    Peer mInput;
    std::map<int, Peer> mPeers;  ///< By descriptor, which is closed with the entry.
};
