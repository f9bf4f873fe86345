#include "bench/reading_clients.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace tarnlink::bench {
namespace {

// Read with one call at most. Octets.
constexpr std::size_t kReadBuffer = std::size_t{1} << 20;
// Between two reports to the parent while frames flow. Frames.
constexpr std::uint64_t kReportEvery = 32;
// After so long a silence the counts are told as they are. Milliseconds.
constexpr int kTellAfter = 1000;

/// From the clients' process to its parent, whole in one write.
struct Report {
  std::uint64_t fewest;
  std::uint64_t most;
};

int checked(ssize_t result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return static_cast<int>(result);
}

/// Counts frames in an octet stream (RFC 6455, 5.2; unmasked, as servers send).
class FrameCounter {
 public:
  void take(std::string_view octets) {
    while (!octets.empty()) {
      if (payloadLeft_ > 0) {
        const auto part = std::min<std::uint64_t>(payloadLeft_, octets.size());
        payloadLeft_ -= part;
        octets.remove_prefix(part);
        if (payloadLeft_ == 0) endFrame();
        continue;
      }
      header_[headerHas_++] = static_cast<unsigned char>(octets.front());
      octets.remove_prefix(1);
      if (headerHas_ == headerSize()) beginFrame();
    }
  }
  std::uint64_t count() const { return count_; }

 private:
  std::size_t headerSize() const {
    if (headerHas_ < 2) return 2;
    const int length = header_[1] & 0x7F;
    return length < 126 ? 2 : length == 126 ? 4 : 10;
  }
  void beginFrame() {
    payloadLeft_ = header_[1] & 0x7F;
    if (headerHas_ > 2) {
      payloadLeft_ = 0;
      for (std::size_t i = 2; i < headerHas_; ++i) payloadLeft_ = payloadLeft_ << 8 | header_[i];
    }
    isCounted_ = (header_[0] & 0x0F) == 1 && payloadLeft_ >= kSmallestCounted;
    headerHas_ = 0;
    if (payloadLeft_ == 0) endFrame();
  }
  void endFrame() {
    if (isCounted_) ++count_;
  }

  std::array<unsigned char, 10> header_{};
  std::size_t headerHas_ = 0;
  std::uint64_t payloadLeft_ = 0;
  bool isCounted_ = false;
  std::uint64_t count_ = 0;
};

struct Reader {
  int socket;
  FrameCounter frames;
};

// RFC 6455, 5.3: with a masking key of zero the octets stay as they are. For up to 125 octets.
std::string maskedText(std::string_view text) {
  std::string frame{'\x81', static_cast<char>(0x80 | text.size())};
  frame.append(4, '\0').append(text);
  return frame;
}

void sendAll(int socket, std::string_view octets) {
  while (!octets.empty()) {
    octets.remove_prefix(static_cast<std::size_t>(
        checked(::send(socket, octets.data(), octets.size(), MSG_NOSIGNAL), "send")));
  }
}

Reader connectReader(std::uint16_t port) {
  Reader reader{checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"), {}};
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  checked(::connect(reader.socket, reinterpret_cast<sockaddr*>(&address), sizeof address),
          "connect");
  sendAll(reader.socket, kUpgradeRequest);
  constexpr std::string_view kEnd = "\r\n\r\n";
  std::string answer;
  std::array<char, 4096> octets;
  while (answer.find(kEnd) == std::string::npos) {
    const auto count = checked(::read(reader.socket, octets.data(), octets.size()), "read");
    if (count == 0) throw std::runtime_error("the server has refused the upgrade");
    answer.append(octets.data(), static_cast<std::size_t>(count));
  }
  if (answer.rfind("HTTP/1.1 101", 0) != 0) throw std::runtime_error("no upgrade: " + answer);
  reader.frames.take(std::string_view(answer).substr(answer.find(kEnd) + kEnd.size()));
  return reader;
}

Report countsOf(const std::vector<Reader>& readers) {
  Report report{~std::uint64_t{0}, 0};
  for (const Reader& reader : readers) {
    report.fewest = std::min(report.fewest, reader.frames.count());
    report.most = std::max(report.most, reader.frames.count());
  }
  return report;
}

void tell(const Report& report) {
  checked(::write(STDOUT_FILENO, &report, sizeof report), "report");
}

void readForever(std::vector<Reader>& readers) {
  const int epoll = checked(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1");
  for (Reader& reader : readers) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = &reader;
    checked(::epoll_ctl(epoll, EPOLL_CTL_ADD, reader.socket, &event), "epoll_ctl");
  }
  std::vector<char> buffer(kReadBuffer);
  std::vector<epoll_event> events(readers.size());
  Report told{0, 0};
  tell(told);
  while (true) {
    const int count =
        ::epoll_wait(epoll, events.data(), static_cast<int>(events.size()), kTellAfter);
    for (int i = 0; i < count; ++i) {
      auto& reader = *static_cast<Reader*>(events[static_cast<std::size_t>(i)].data.ptr);
      const auto octets = checked(::read(reader.socket, buffer.data(), buffer.size()), "read");
      if (octets == 0) throw std::runtime_error("the server has closed a connection");
      reader.frames.take({buffer.data(), static_cast<std::size_t>(octets)});
    }
    const Report report = countsOf(readers);
    if (count > 0 && report.fewest / kReportEvery == told.fewest / kReportEvery) continue;
    tell(report);
    told = report;
  }
}

}  // namespace

ReadingClients::ReadingClients(std::size_t count, std::uint16_t port,
                               const std::vector<std::string>& commands)
    : port_(port) {
  std::vector<std::string> arguments{"/proc/self/exe", kRole, std::to_string(count),
                                     std::to_string(port)};
  arguments.insert(arguments.end(), commands.begin(), commands.end());
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  std::array<int, 2> ends{};
  checked(::pipe2(ends.data(), O_CLOEXEC), "pipe2");
  pid_ = ::fork();
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(ends[1], STDOUT_FILENO);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(ends[1]);
  reports_ = ends[0];
  checked(pid_, "fork");
  readReport(std::chrono::steady_clock::now() + kPatience);
}

ReadingClients::~ReadingClients() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  ::close(reports_);
}

void ReadingClients::readReport(std::chrono::steady_clock::time_point deadline) {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  pollfd ready{reports_, POLLIN, 0};
  if (left.count() <= 0 || ::poll(&ready, 1, static_cast<int>(left.count())) <= 0) {
    throw std::runtime_error("the clients do not answer");
  }
  std::array<Report, 64> reports;
  const ssize_t octets = ::read(reports_, reports.data(), sizeof reports);
  if (octets < static_cast<ssize_t>(sizeof(Report))) throw std::runtime_error("the clients ended");
  const auto& last = reports.at(static_cast<std::size_t>(octets) / sizeof(Report) - 1);
  fewest_ = last.fewest;
  most_ = last.most;
}

void ReadingClients::waitFor(std::uint64_t frames, std::uint64_t most) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (fewest_ < frames) {
    readReport(deadline);
    if (std::chrono::steady_clock::now() < deadline || fewest_ >= frames) continue;
    throw std::runtime_error("of " + std::to_string(frames) + " frames each, clients of port " +
                             std::to_string(port_) + " have got " + std::to_string(fewest_) +
                             " to " + std::to_string(most_));
  }
  if (most_ > most) throw std::runtime_error("a client has got more frames than were sent");
}

int ReadingClients::main(const std::vector<std::string>& arguments) {
  const auto count = std::stoul(arguments.at(0));
  const auto port = static_cast<std::uint16_t>(std::stoul(arguments.at(1)));
  std::vector<Reader> readers;
  for (std::size_t i = 0; i < count; ++i) readers.push_back(connectReader(port));
  for (const Reader& reader : readers) {
    for (std::size_t i = 2; i < arguments.size(); ++i) {
      sendAll(reader.socket, maskedText(arguments[i]));
    }
  }
  readForever(readers);
  return 0;
}

}  // namespace tarnlink::bench
