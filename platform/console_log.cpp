#include "platform/console_log.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace tarnlink {
namespace {

constexpr unsigned char kDelete = 0x7F;
constexpr unsigned char kC1Lead = 0xC2;  // UTF-8 lead octet of U+0080 to U+00BF.

void appendEscape(std::string& out, unsigned char octet) {
  constexpr std::string_view kNamed = "\n\r\t";
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  out += '\\';
  if (const auto at = kNamed.find(static_cast<char>(octet)); at != kNamed.npos) {
    out += "nrt"[at];
  } else {
    out.append({'x', kDigits[octet >> 4], kDigits[octet & 0x0F]});
  }
}

// Lines that wait for the reader of standard output; those beyond are lost, counted and reported.
// Octets. Twice that is held at most: as much again is being written.
constexpr std::size_t kMaxQueued = std::size_t{1} << 20;
// How long the end of the program waits for the reader.
constexpr std::chrono::milliseconds kExitWait{500};

/// With its line feed; a code point stays whole.
std::string cutLine(std::string line) {
  constexpr std::string_view kEnd = "…\n";
  if (line.size() < kMaxLogLine) return line + '\n';
  std::size_t kept = kMaxLogLine - kEnd.size();
  while (kept != 0 && (static_cast<unsigned char>(line[kept]) & 0xC0) == 0x80) --kept;
  line.replace(kept, std::string::npos, kEnd);
  return line;
}

// Standard output may share a terminal that another program has made non-blocking.
bool waitUntilWritable() {
  pollfd output{STDOUT_FILENO, POLLOUT, 0};
  return ::poll(&output, 1, -1) > 0 || errno == EINTR;
}

void writeOut(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      if (!waitUntilWritable()) return;
    } else if (errno != EINTR) {
      return;
    }
  }
}

/// The queue before standard output and the thread that empties it, which waits for the reader so
/// that nobody else has to. Never destroyed: the thread may be stuck when the process ends.
class Writer {
 public:
  static Writer& ofThisProcess() {
    static auto* const writer = new Writer;
    return *writer;
  }

  void put(std::string_view line) {
    const std::lock_guard guard(mutex_);
    // After a lost line all are, until the queue is taken: the report stands where they are
    // missing.
    if (lost_ != 0 || queued_.size() + line.size() > kMaxQueued) {
      ++lost_;
      return;
    }
    queued_ += line;
    if (!hasThread_) startThread();
    if (hasThread_) {
      filled_.notify_one();
    } else {
      writeOut(std::exchange(queued_, {}));
    }
  }

  bool flush(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return emptied_.wait_for(lock, limit,
                             [this] { return queued_.empty() && lost_ == 0 && !isWriting_; });
  }

 private:
  void startThread() {
    // Signals are for the program's other threads.
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
      std::thread([this] { run(); }).detach();
      hasThread_ = true;
      std::atexit([] { flushConsoleLog(kExitWait); });
    } catch (const std::system_error&) {
      // No thread to be had: whoever logs writes.
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }

  void run() {
    std::string text;
    std::unique_lock lock(mutex_);
    while (true) {
      filled_.wait(lock, [this] { return !queued_.empty() || lost_ != 0; });
      text.clear();
      text.swap(queued_);
      if (const auto lost = std::exchange(lost_, 0); lost != 0) {
        text += "[Log] " + std::to_string(lost) + " lines lost: nobody read the output\n";
      }
      isWriting_ = true;
      lock.unlock();
      writeOut(text);
      lock.lock();
      isWriting_ = false;
      if (queued_.empty() && lost_ == 0) emptied_.notify_all();
    }
  }

  std::mutex mutex_;  // Held for a few instructions; guards what follows.
  std::condition_variable filled_;
  std::condition_variable emptied_;
  std::string queued_;
  std::size_t lost_ = 0;
  bool isWriting_ = false;
  bool hasThread_ = false;
};

}  // namespace

std::string escapeControlCharacters(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto octet = static_cast<unsigned char>(text[i]);
    const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0U;
    if (octet < 0x20 || octet == kDelete) {
      appendEscape(out, octet);
    } else if (octet == kC1Lead && next >= 0x80 && next <= 0x9F) {
      appendEscape(out, octet);
      appendEscape(out, static_cast<unsigned char>(next));
      ++i;
    } else {
      out += text[i];
    }
  }
  return out;
}

void logToConsole(std::string_view line) {
  // No escape is shorter than what it stands for.
  Writer::ofThisProcess().put(cutLine(escapeControlCharacters(line.substr(0, kMaxLogLine))));
}

bool flushConsoleLog(std::chrono::milliseconds limit) {
  return Writer::ofThisProcess().flush(limit);
}

}  // namespace tarnlink
