#include "web_server.h"

#include <httplib.h>

#include <nlohmann/json.hpp>

#include "band_channels.h"
#include "web_page.h"

using nlohmann::json;

namespace {

constexpr int32_t kLowestKhz = 30000;     // the range the command line accepts
constexpr int32_t kHighestKhz = 3000000;
constexpr size_t kHttpThreads = 16;       // each audio listener holds one

// A frequency in whole kHz or a block name.
bool FrequencyFrom(const json& value, int32_t* khz) {
    if (value.is_string()) {
        *khz = ChannelFrequency(value.get<std::string>());
        return *khz != 0;
    }
    if (!value.is_number_integer()) return false;
    const int64_t v = value.get<int64_t>();
    if (v < kLowestKhz || v > kHighestKhz) return false;
    *khz = int32_t(v);
    return true;
}

void Reply(httplib::Response& res, int status, const json& body) {
    res.status = status;
    res.set_content(body.dump(), "application/json");
}

}  // namespace

bool ParseWebCommand(const std::string& path, const std::string& body, WebCommand* out, std::string* why) {
    const json j = json::parse(body.empty() ? "{}" : body, nullptr, false);
    if (j.is_discarded() || !j.is_object()) {
        *why = "the body is not a JSON object";
        return false;
    }
    *out = WebCommand{};
    if (path == "/api/select") {
        out->kind = WebCommand::Kind::Select;
        const auto s = j.find("service");
        if (s == j.end() || !s->is_string() || s->get<std::string>().empty()) {
            *why = "\"service\" must be a label or an id";
            return false;
        }
        out->service = s->get<std::string>();
        return true;
    }
    if (path == "/api/tune") {
        out->kind = WebCommand::Kind::Tune;
        const auto f = j.find("frequency");
        if (f == j.end() || !FrequencyFrom(*f, &out->frequencyKhz)) {
            *why = "\"frequency\" must be kHz or a block name";
            return false;
        }
        return true;
    }
    if (path == "/api/scan") {
        out->kind = WebCommand::Kind::Scan;
        const auto list = j.find("frequencies");
        if (list == j.end()) return true;
        if (!list->is_array() || list->size() > 256) {
            *why = "\"frequencies\" must be a list";
            return false;
        }
        for (const json& f : *list) {
            int32_t khz = 0;
            if (!FrequencyFrom(f, &khz)) {
                *why = "\"frequencies\" must hold kHz or block names";
                return false;
            }
            out->frequenciesKhz.push_back(khz);
        }
        return true;
    }
    *why = "no such command";
    return false;
}

void WebExchange::PublishState(std::string json) {
    std::lock_guard<std::mutex> lock(mutex_);
    state_ = std::move(json);
}

void WebExchange::PublishSlide(std::shared_ptr<const WebSlide> slide) {
    std::lock_guard<std::mutex> lock(mutex_);
    slide_ = std::move(slide);
}

std::vector<WebCommand> WebExchange::TakeCommands() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<WebCommand> out(std::make_move_iterator(commands_.begin()), std::make_move_iterator(commands_.end()));
    commands_.clear();
    return out;
}

std::string WebExchange::state() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return state_;
}

std::shared_ptr<const WebSlide> WebExchange::slide() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return slide_;
}

bool WebExchange::Post(WebCommand command) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (commands_.size() >= kMaxCommands) return false;
    commands_.push_back(std::move(command));
    return true;
}

WebServer::WebServer(WebExchange& exchange, Mp3Broadcast& audio) : exchange_(exchange), audio_(audio) {}

WebServer::~WebServer() { Stop(); }

void WebServer::Route() {
    httplib::Server& s = *server_;
    s.Get("/", [](const httplib::Request&, httplib::Response& res) {
        res.set_content(kWebPage, "text/html; charset=utf-8");
    });
    s.Get("/api/state", [this](const httplib::Request&, httplib::Response& res) {
        res.set_header("Cache-Control", "no-store");
        res.set_content(exchange_.state(), "application/json");
    });
    s.Get("/api/channels", [](const httplib::Request&, httplib::Response& res) {
        json list = json::array();
        for (const BandChannel& c : BandIIIChannels()) list.push_back({{"block", c.name}, {"frequencyKhz", c.frequencyKhz}});
        res.set_content(list.dump(), "application/json");
    });
    s.Get("/slide", [this](const httplib::Request&, httplib::Response& res) {
        const std::shared_ptr<const WebSlide> slide = exchange_.slide();
        res.set_header("Cache-Control", "no-store");
        if (!slide) {
            res.status = 404;
            res.set_content("no slide yet", "text/plain");
            return;
        }
        res.set_content(reinterpret_cast<const char*>(slide->bytes.data()), slide->bytes.size(), slide->contentType);
    });
    for (const char* path : {"/api/select", "/api/tune", "/api/scan"}) {
        s.Post(path, [this](const httplib::Request& req, httplib::Response& res) {
            // Only JSON: a browser asks before sending that to another site's
            // server, so another page cannot work this radio behind its back.
            if (req.get_header_value("Content-Type").rfind("application/json", 0) != 0)
                return Reply(res, 415, {{"error", "commands are JSON"}});
            WebCommand command;
            std::string why;
            if (!ParseWebCommand(req.path, req.body, &command, &why)) return Reply(res, 400, {{"error", why}});
            if (!exchange_.Post(std::move(command))) return Reply(res, 503, {{"error", "too many commands queued"}});
            Reply(res, 202, {{"queued", true}});
        });
    }
    s.Get("/audio.mp3", [this](const httplib::Request&, httplib::Response& res) {
        std::shared_ptr<Mp3Broadcast::Listener> listener = audio_.Join();
        // A live stream has no ranges: a browser asking for "bytes=0-" gets
        // the whole stream as it goes on.
        res.status = 200;
        res.set_header("Cache-Control", "no-store");
        res.set_chunked_content_provider(
            "audio/mpeg",
            [this, listener](size_t, httplib::DataSink& sink) {
                std::vector<uint8_t> bytes;
                if (!audio_.Take(*listener, &bytes, std::chrono::milliseconds(500))) {
                    sink.done();
                    return true;
                }
                return bytes.empty() || sink.write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
            },
            [this, listener](bool) { audio_.Leave(listener); });
    });
}

int WebServer::Start(const std::string& host, int port) {
    server_ = std::make_unique<httplib::Server>();
    server_->new_task_queue = [] { return new httplib::ThreadPool(kHttpThreads); };
    server_->set_keep_alive_timeout(2);
    server_->set_payload_max_length(64 * 1024);  // commands are a few bytes
    Route();
    const int bound = port == 0 ? server_->bind_to_any_port(host) : (server_->bind_to_port(host, port) ? port : -1);
    if (bound < 0) {
        server_.reset();
        return -1;
    }
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    return bound;
}

void WebServer::Stop() {
    audio_.Close();
    if (server_) server_->stop();
    if (thread_.joinable()) thread_.join();
    server_.reset();
}
