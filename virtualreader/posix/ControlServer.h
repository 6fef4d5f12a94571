#pragma once

#include "EndpointServer.h"
#include "LineCommands.h"

#include <cstddef>
#include <list>
#include <memory>
#include <string>

/// Reads line commands from standard input and from the hosts of a stream socket, and answers each where it came from.
/// Ends on "quit", on SIGINT and SIGTERM, and, if so told, with standard input. A peer that does not take its answers
/// waits for itself alone: its further commands are read when it has taken them.
class ControlServer {
  public:
    /// Blocks the two signals for the whole process, so make it before any thread starts.
    ControlServer(LineCommands& commands, bool endsWithInput);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    /// Publishes the socket, for this user alone. A socket that nobody serves any more is replaced. Before any thread
    /// starts. @return empty or what went wrong.
    std::string listen(const std::string& path);
    /// Serves until the end.
    void run();

  private:
    struct Peer {
        int in, out;
        std::string pending = {};  ///< What came after the last newline.
        std::string answers = {};  ///< What has not gone out yet.
        bool isOpen = true;        ///< More commands may come.

        bool isDone() const { return !isOpen && answers.empty(); }
    };

    void serve(Peer& peer, bool isReadable, bool isWritable);
    void readPeer(Peer& peer);
    void takeLines(Peer& peer);
    void acceptPeer();

    LineCommands& mCommands;
    const bool mEndsWithInput;
    std::string mPath;
    Descriptor mSignals;
    Descriptor mListener;
    std::list<Peer> mPeers;  ///< Standard input and output first. The descriptors of the others are closed with them.
};
