#pragma once

#include "VirtualReader.h"

#include <memory>
#include <string>

/// A reader on a message socket (SOCK_SEQPACKET, one message one frame), published as `<root>/<classGuid>/<name>`. One
/// host at a time; a second one waits until the first has closed.
class SocketEndpoint {
  public:
    /// `root` and the class directory are made if they are missing.
    SocketEndpoint(std::shared_ptr<VirtualReader> reader, const std::string& root, const std::string& classGuid,
                   std::string name);
    /// Stops.
    ~SocketEndpoint();
    SocketEndpoint(const SocketEndpoint&) = delete;
    SocketEndpoint& operator=(const SocketEndpoint&) = delete;

    /// Publishes the socket and serves it on a thread of its own. A name that another
    /// simulator has is refused. @return empty or what went wrong.
    std::string start();
    /// Takes the socket away and waits for the thread. Once more does nothing.
    void stop();
    /// Waits until the name stands or is gone, as the reader is there or not. @return empty or what went wrong.
    std::string settle();

    std::string name() const;
    std::string path() const;

  private:
    class Server;
    std::unique_ptr<Server> mServer;
};
