// The web page's HTTP side. Its handlers run on the server's own threads and
// never touch the receiver: they read the latest snapshot the host's main
// loop published, and post commands to a queue that the main loop drains.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "mp3_stream.h"

namespace httplib {
class Server;
}

// What the page asks the main loop to do.
struct WebCommand {
    enum class Kind { Select, Tune, Scan };
    Kind kind = Kind::Select;
    std::string service;                  // Select: label or id in hex
    int32_t frequencyKhz = 0;             // Tune: kHz
    std::vector<int32_t> frequenciesKhz;  // Scan: kHz; empty: every Band III block
};

// Reads the JSON body of POST /api/select ({"service": "MVX Plus"} or an id),
// /api/tune ({"frequency": 227360} or a block name "12C") or /api/scan
// ({} or {"frequencies": [227360, "12D"]}). False, with the reason, for
// anything else.
bool ParseWebCommand(const std::string& path, const std::string& body, WebCommand* out, std::string* why);

struct WebSlide {
    std::string contentType;     // image/jpeg or image/png
    std::vector<uint8_t> bytes;
};

// The hand-over between the HTTP threads and the main loop.
class WebExchange {
public:
    static constexpr size_t kMaxCommands = 16;  // a page clicking faster than the loop drains is refused

    // Main loop side.
    void PublishState(std::string json);
    void PublishSlide(std::shared_ptr<const WebSlide> slide);  // null: no slide
    std::vector<WebCommand> TakeCommands();

    // HTTP side.
    std::string state() const;
    std::shared_ptr<const WebSlide> slide() const;
    bool Post(WebCommand command);  // false when the queue is full

private:
    mutable std::mutex mutex_;
    std::string state_ = "{}";
    std::shared_ptr<const WebSlide> slide_;
    std::deque<WebCommand> commands_;
};

class WebServer {
public:
    WebServer(WebExchange& exchange, Mp3Broadcast& audio);
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    // Binds `host`:`port` (0: any free port) and serves on threads of its
    // own. Returns the port, or -1 when it cannot be bound.
    int Start(const std::string& host, int port);
    // Ends the audio streams and the server, and waits for its threads.
    void Stop();

private:
    void Route();
    WebExchange& exchange_;
    Mp3Broadcast& audio_;
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
};
