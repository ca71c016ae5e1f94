// Transport benchmarks.
//
// BM_TLSBulkRead/*: one TLS connection per iteration to a local
// `openssl s_server -WWW` that serves a 32 MiB file; the body is read
// through BufferedByteStream + StreamReader (header lines with readLine,
// the body with readBytes), next to `openssl s_client` fetching the same
// file, its output read from a pipe. Handshakes are included in both.
//
// BM_ReadLine*: lines per second through StreamReader.readLine over an
// IMAP-like FETCH response held in memory, straight from a ByteStream and
// through BufferedByteStream over an in-memory transport.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>

#include "MailCore/Transport/BufferedByteStream.h"
#include "MailCore/Transport/SocketTLSTransport.h"
#include "MailCore/Transport/StreamReader.h"

extern char** environ;

namespace {

using namespace mailcore;

constexpr std::size_t bulkBytes = 32u << 20;

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// A self-signed localhost certificate, a random file and an s_server -WWW
// serving it on 127.0.0.1; everything is removed when the process ends.
class BulkServer {
public:
    BulkServer() {
        char pattern[] = "/tmp/kestrune-bench-XXXXXX";
        if (!mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
        dir_ = pattern;
        const std::string make =
            "cd '" + dir_ +
            "' && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
            "-keyout key.pem -out cert.pem -days 2 -subj /CN=localhost "
            "-addext subjectAltName=DNS:localhost > openssl.log 2>&1";
        if (std::system(make.c_str()) != 0) throw std::runtime_error("openssl req failed");
        anchors_ = Certificate::fromPEM(slurp(dir_ + "/cert.pem"));
        std::string body(bulkBytes, '\0');
        std::mt19937_64 random(1);
        for (std::size_t i = 0; i + 8 <= body.size(); i += 8) {
            const auto v = random();
            std::memcpy(&body[i], &v, 8);
        }
        std::ofstream(dir_ + "/bulk.bin", std::ios::binary) << body;

        {
            // A port that is free now on 127.0.0.1.
            const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            socklen_t length = sizeof address;
            ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address);
            ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
            port_ = ntohs(address.sin_port);
            ::close(probe);
        }
        const std::string command =
            "cd '" + dir_ +
            "' && exec openssl s_server -accept 127.0.0.1:" + std::to_string(port_) +
            " -cert cert.pem -key key.pem -WWW > server.log 2>&1";
        const char* argv[] = {"sh", "-c", command.c_str(), nullptr};
        if (posix_spawnp(&pid_, "sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
            throw std::runtime_error("cannot start openssl s_server");
        }
        for (int i = 0; slurp(dir_ + "/server.log").find("ACCEPT") == std::string::npos; ++i) {
            if (i == 500) throw std::runtime_error("openssl s_server did not start");
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    ~BulkServer() {
        kill(pid_, SIGTERM);
        int status = 0;
        waitpid(pid_, &status, 0);
        std::filesystem::remove_all(dir_);
    }

    std::uint16_t port() const { return port_; }
    const std::vector<Certificate>& anchors() const { return anchors_; }

    static BulkServer& shared() {
        static BulkServer server;
        return server;
    }

private:
    std::string dir_;
    std::vector<Certificate> anchors_;
    std::uint16_t port_ = 0;
    pid_t pid_ = -1;
};

const char* const request = "GET /bulk.bin HTTP/1.0\r\n\r\n";

void BM_TLSBulkRead_BufferedStreamReader(benchmark::State& state) {
    BulkServer& server = BulkServer::shared();
    const std::size_t chunk = static_cast<std::size_t>(state.range(0));
    for (auto _ : state) {
        BufferedByteStream stream(
            std::make_unique<SocketTLSTransport>("localhost", server.port(), server.anchors(),
                                                 SocketTLSTransport::Mode::implicitTLS),
            ConnectionTimeouts{10, 10, 0, 0, 0});
        stream.open();
        stream.writeText(request);
        StreamReader reader(stream);
        while (!reader.readLine(1000).empty()) {
        }
        std::size_t total = 0;
        while (total < bulkBytes) {
            const std::size_t n = std::min(chunk, bulkBytes - total);
            benchmark::DoNotOptimize(reader.readBytes(n).data());
            total += n;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bulkBytes));
}
BENCHMARK(BM_TLSBulkRead_BufferedStreamReader)
    ->Arg(16384)
    ->Arg(65536)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_TLSBulkRead_OpenSSLSClient(benchmark::State& state) {
    BulkServer& server = BulkServer::shared();
    const std::string command =
        "printf 'GET /bulk.bin HTTP/1.0\\r\\n\\r\\n' | openssl s_client -quiet "
        "-connect 127.0.0.1:" +
        std::to_string(server.port()) + " -servername localhost 2>/dev/null";
    std::vector<char> buffer(65536);
    for (auto _ : state) {
        FILE* pipe = popen(command.c_str(), "r");
        std::size_t total = 0;
        for (std::size_t n; (n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) total += n;
        pclose(pipe);
        if (total < bulkBytes) state.SkipWithError("s_client moved fewer bytes than the file");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bulkBytes));
}
BENCHMARK(BM_TLSBulkRead_OpenSSLSClient)->UseRealTime()->Unit(benchmark::kMillisecond);

// An IMAP-like FETCH response of `lines` lines.
const std::string& imapResponse() {
    static const std::string text = [] {
        std::string s;
        for (int i = 1; i <= 200000; ++i) {
            s += "* " + std::to_string(i) + " FETCH (UID " + std::to_string(100000 + i) +
                 " FLAGS (\\Seen \\Answered) INTERNALDATE \"17-Jul-2024 09:12:33 +0000\" "
                 "RFC822.SIZE " +
                 std::to_string(1000 + i % 90000) + " MODSEQ (" + std::to_string(7000000 + i) +
                 "))\r\n";
        }
        s += "A7 OK FETCH completed\r\n";
        return s;
    }();
    return text;
}
constexpr int imapLines = 200001;

// Serves a fixed text, at most `maxLength` bytes per read.
class MemoryStream final : public ByteStream {
public:
    explicit MemoryStream(const std::string& text) : text_(text) {}
    void open() override {}
    void upgradeToTLS(const std::string&) override {}
    void write(const Bytes&) override {}
    void close() override {}
    Bytes read(int maxLength) override {
        const std::size_t n = std::min(text_.size() - offset_, static_cast<std::size_t>(maxLength));
        Bytes out(text_.begin() + static_cast<std::ptrdiff_t>(offset_),
                  text_.begin() + static_cast<std::ptrdiff_t>(offset_ + n));
        offset_ += n;
        return out;
    }

private:
    const std::string& text_;
    std::size_t offset_ = 0;
};

// Completes every receive at once with the next slice of a fixed text.
class MemoryTransport final : public RawTransport {
public:
    explicit MemoryTransport(const std::string& text) : text_(text) {}
    void connect(double) override {}
    void send(const Bytes&) override {}
    void upgradeToTLS(const std::string&) override {}
    void cancel() override {}
    void startReceive(int maxLength, ReceiveCompletion completion) override {
        const std::size_t n = std::min(text_.size() - offset_, static_cast<std::size_t>(maxLength));
        Bytes out(text_.begin() + static_cast<std::ptrdiff_t>(offset_),
                  text_.begin() + static_cast<std::ptrdiff_t>(offset_ + n));
        offset_ += n;
        completion(std::move(out));
    }

private:
    const std::string& text_;
    std::size_t offset_ = 0;
};

void readAllLines(ByteStream& stream, benchmark::State& state) {
    StreamReader reader(stream);
    for (int i = 0; i < imapLines; ++i) benchmark::DoNotOptimize(reader.readLine(8192).data());
    (void)state;
}

void BM_ReadLine_MemoryStream(benchmark::State& state) {
    const std::string& text = imapResponse();
    for (auto _ : state) {
        MemoryStream stream(text);
        readAllLines(stream, state);
    }
    state.SetItemsProcessed(state.iterations() * imapLines);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_ReadLine_MemoryStream)->Unit(benchmark::kMillisecond);

void BM_ReadLine_BufferedByteStream(benchmark::State& state) {
    const std::string& text = imapResponse();
    for (auto _ : state) {
        BufferedByteStream stream(std::make_unique<MemoryTransport>(text),
                                  ConnectionTimeouts{10, 10, 0, 0, 0});
        readAllLines(stream, state);
    }
    state.SetItemsProcessed(state.iterations() * imapLines);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_ReadLine_BufferedByteStream)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
