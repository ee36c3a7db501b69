// dabhost --web on the emulated device, driven over HTTP as the page drives
// it: the default ensemble at 227,360 kHz with the MP2 sample in "MVX
// Classic", and the PAD ensemble (labels and pictures) at 229,072 kHz. The
// paths come from the environment: DABHOST, WEB_SLIDES.
#include <csignal>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <httplib.h>

#include <nlohmann/json.hpp>

using nlohmann::json;
using namespace std::chrono_literals;

// In mp3_stream_test.cpp.
long DecodedFrames(const std::vector<uint8_t>& mp3, long* rate, int* channels);

namespace {

std::string Env(const char* name) {
    const char* v = std::getenv(name);
    return v == nullptr ? "" : v;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// dabhost --web 0 with its stderr in a file, from which the port is read.
class Dabhost {
public:
    explicit Dabhost(const std::string& log) : log_(log) {
        std::remove(log.c_str());
        pid_ = fork();
        if (pid_ == 0) {
            const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(fd, 2);
            const std::string dabhost = Env("DABHOST");
            execl(dabhost.c_str(), dabhost.c_str(), "--web", "0", "-f", "227360", "-i", "0.05", nullptr);
            _exit(127);
        }
        const std::regex line("web page at http://127\\.0\\.0\\.1:([0-9]+)/");
        for (int i = 0; i < 100 && port_ == 0; ++i) {
            std::smatch m;
            const std::string text = ReadFile(log);
            if (std::regex_search(text, m, line)) port_ = std::stoi(m[1]);
            std::this_thread::sleep_for(50ms);
        }
    }
    // Ends dabhost as Ctrl-C would; its exit status.
    int Stop() {
        kill(pid_, SIGINT);
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    ~Dabhost() {
        if (pid_ > 0) Stop();
    }
    int port() const { return port_; }
    std::string log() const { return ReadFile(log_); }

private:
    std::string log_;
    pid_t pid_ = -1;
    int port_ = 0;
};

// Polls the state until `done` holds or `seconds` pass; the last state.
json WaitFor(httplib::Client& http, const std::function<bool(const json&)>& done, double seconds) {
    json state;
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
        if (auto r = http.Get("/api/state"); r && r->status == 200) {
            state = json::parse(r->body, nullptr, false);
            if (!state.is_discarded() && done(state)) break;
        }
        std::this_thread::sleep_for(200ms);
    }
    return state;
}

bool ServiceIs(const json& s, const char* label) { return s["service"].is_object() && s["service"]["label"] == label; }

TEST(WebOnEmulator, EnsembleServiceAudioLabelSlideAndBadCommands) {
    if (Env("DABHOST").empty()) GTEST_SKIP() << "DABHOST not set";
    Dabhost dabhost(testing::TempDir() + "web_on_emulator.log");
    ASSERT_NE(dabhost.port(), 0) << dabhost.log();
    if (dabhost.log().find("no signal generator") != std::string::npos) GTEST_SKIP() << "no signal generator";
    httplib::Client http("127.0.0.1", dabhost.port());
    http.set_read_timeout(5, 0);

    // The page and the ensemble with its three services.
    auto page = http.Get("/");
    ASSERT_TRUE(page);
    EXPECT_NE(page->body.find("<canvas"), std::string::npos);
    json s = WaitFor(http, [](const json& s) {
        return s["ensemble"].is_object() && s["ensemble"]["services"].size() == 3 && s["outcome"] == "complete";
    }, 20);
    ASSERT_TRUE(s["ensemble"].is_object()) << s.dump();
    EXPECT_EQ(s["ensemble"]["label"], "MVX DEFAULT");
    std::string labels;
    for (const json& v : s["ensemble"]["services"]) labels += v["label"].get<std::string>() + "|" + v["kind"].get<std::string>() + ";";
    EXPECT_EQ(labels, "MVX Plus|DAB+;MVX Classic|MP2;|data;");
    EXPECT_EQ(s["ensemble"]["subChannels"].size(), 3u);
    EXPECT_EQ(s["signal"]["locked"], true);
    EXPECT_GT(s["fic"]["fibs"].get<int>(), 0);

    // Bad commands are refused and change nothing.
    for (const auto& [path, body] : std::vector<std::pair<const char*, const char*>>{
             {"/api/select", "{"}, {"/api/select", "{\"service\": 7}"}, {"/api/tune", "{\"frequency\": \"99Z\"}"},
             {"/api/tune", "{\"frequency\": 12}"}, {"/api/scan", "{\"frequencies\": [true]}"}, {"/api/scan", "[]"}}) {
        auto r = http.Post(path, body, "application/json");
        ASSERT_TRUE(r);
        EXPECT_EQ(r->status, 400) << path << " " << body;
    }
    auto plain = http.Post("/api/select", R"({"service": "MVX Plus"})", "text/plain");
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->status, 415);

    // A selected MP2 service streams MP3 that libmpg123 decodes.
    auto r = http.Post("/api/select", R"({"service": "MVX Classic"})", "application/json");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 202);
    s = WaitFor(http, [](const json& s) { return ServiceIs(s, "MVX Classic") && s["service"]["audioFrames"] > 10; }, 10);
    ASSERT_TRUE(ServiceIs(s, "MVX Classic")) << s.dump();
    std::string mp3;
    httplib::Client listener("127.0.0.1", dabhost.port());
    listener.Get("/audio.mp3", [&](const char* data, size_t length) {
        mp3.append(data, length);
        return mp3.size() < 24000;  // 1.5 s of 128 kbit/s
    });
    long rate = 0;
    int channels = 0;
    // 1.5 s, less a frame or two at each end.
    EXPECT_GE(DecodedFrames(std::vector<uint8_t>(mp3.begin(), mp3.end()), &rate, &channels), 60000) << mp3.size();
    EXPECT_EQ(rate, 48000);
    EXPECT_EQ(channels, 2);

    // Another frequency, its DAB+ service with label and pictures.
    r = http.Post("/api/tune", R"({"frequency": "12D"})", "application/json");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 202);
    r = http.Post("/api/select", R"({"service": "PAD Plüs"})", "application/json");
    s = WaitFor(http, [](const json& s) {
        return ServiceIs(s, "PAD Plüs") && s["service"]["dynamicLabel"] != "" && s["service"]["slides"] > 0;
    }, 25);
    EXPECT_EQ(s["frequencyKhz"], 229072);
    EXPECT_EQ(s["ensemble"]["label"], "MVX PAD");
    ASSERT_TRUE(ServiceIs(s, "PAD Plüs")) << s.dump();
    EXPECT_EQ(s["service"]["dynamicLabel"], "DAB+ now: Grüße");
    auto slide = http.Get("/slide");
    ASSERT_TRUE(slide);
    EXPECT_EQ(slide->status, 200);
    EXPECT_EQ(slide->get_header_value("Content-Type"), "image/png");
    const std::string slides = Env("WEB_SLIDES");
    EXPECT_TRUE(slide->body == ReadFile(slides + "/01-gradient.png") || slide->body == ReadFile(slides + "/02-stripes.png"));

    // Ending dabhost ends a stream still playing.
    std::string tail;
    httplib::Client playing("127.0.0.1", dabhost.port());
    std::thread play([&] { playing.Get("/audio.mp3", [&](const char* data, size_t n) { tail.append(data, n); return true; }); });
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(dabhost.Stop(), 0) << dabhost.log();
    play.join();
}

}  // namespace
