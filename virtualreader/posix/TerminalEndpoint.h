#pragma once

#include "VirtualTamaReader.h"

#include <cstdint>
#include <memory>
#include <string>

/// A reader on a serial port: a pseudo-terminal published as `<root>/COM<n>`.
class TerminalEndpoint {
  public:
    /// `root` is made if it is missing. `baudRate` paces the bytes of both directions, 10 bits a byte; 0 for none.
    TerminalEndpoint(std::shared_ptr<VirtualTamaReader> reader, std::string root, unsigned comNumber,
                     std::uint32_t baudRate = 0);
    /// Stops.
    ~TerminalEndpoint();
    TerminalEndpoint(const TerminalEndpoint&) = delete;
    TerminalEndpoint& operator=(const TerminalEndpoint&) = delete;

    /// Publishes the port and serves it on a thread of its own. A name that another
    /// simulator has is refused. @return empty or what went wrong.
    std::string start();
    /// Takes the port away and waits for the thread. Once more does nothing.
    void stop();
    /// Waits until the name stands or is gone, as the reader is there or not. @return empty or what went wrong.
    std::string settle();

    /// "COM<n>", and where it is published.
    std::string name() const;
    std::string path() const;

  private:
    class Server;
    std::unique_ptr<Server> mServer;
};
