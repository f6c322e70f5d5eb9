// TerminalHost: dialogs and message boxes on the controlling terminal (/dev/tty) in raw mode,
// with the terminal's modes restored on every way out, a signal included.
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <mutex>

#include "platform/codepage.h"
#include "platform/ui.h"

namespace qx::ui {

// ---- TerminalHost -----------------------------------------------------------------------------

namespace {

// One terminal prompt at a time in the process: the signal handler works on these globals.
// Recursive, so a dialog procedure may itself show a message box; only the outermost prompt
// switches modes and handlers (g_depth counts the prompts open on this thread).
std::recursive_mutex g_terminalMutex;
int g_depth = 0;
volatile sig_atomic_t g_rawFd = -1;
volatile sig_atomic_t g_signalled = 0;
struct termios g_savedTermios;
constexpr int kCaughtSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
constexpr size_t kSignalCount = sizeof(kCaughtSignals) / sizeof(kCaughtSignals[0]);
struct sigaction g_oldActions[kSignalCount];
bool g_installed[kSignalCount];

// Puts the terminal back, then hands the signal on to whatever handled it before, so a
// process killed during a prompt never leaves the terminal in raw mode.
void RestoreTerminalOnSignal(int sig) {
  int saved = errno;
  int fd = g_rawFd;
  if (fd >= 0) tcsetattr(fd, TCSANOW, &g_savedTermios);
  g_signalled = 1;
  for (size_t i = 0; i < kSignalCount; ++i)
    if (kCaughtSignals[i] == sig && g_installed[i]) {
      sigaction(sig, &g_oldActions[i], nullptr);
      g_installed[i] = false;
    }
  raise(sig);
  errno = saved;
}

// Raw mode for the life of the object: no line editing, no echo, no signals from keys (Ctrl-C
// arrives as a byte), output processing kept so "\n" still starts a new line.
class RawMode {
 public:
  explicit RawMode(int fd) : fd_(fd) {}
  ~RawMode() { Leave(); }
  RawMode(const RawMode&) = delete;
  RawMode& operator=(const RawMode&) = delete;

  bool Enter() {
    struct termios saved;
    if (tcgetattr(fd_, &saved) != 0) return false;
    if (g_depth > 0) {
      // Inside another prompt: the terminal is raw already and the handlers are in place.
      nestedSaved_ = saved;
      nested_ = true;
      ++g_depth;
      return true;
    }
    g_savedTermios = saved;
    g_signalled = 0;
    for (size_t i = 0; i < kSignalCount; ++i) {
      g_installed[i] = false;
      struct sigaction current;
      if (sigaction(kCaughtSignals[i], nullptr, &current) != 0) continue;
      if (current.sa_handler == SIG_IGN) continue;  // ignored signals stay ignored
      struct sigaction action {};
      action.sa_handler = RestoreTerminalOnSignal;
      sigemptyset(&action.sa_mask);
      action.sa_flags = 0;  // no SA_RESTART: a signal interrupts the wait for a key
      g_oldActions[i] = current;
      if (sigaction(kCaughtSignals[i], &action, nullptr) == 0) g_installed[i] = true;
    }
    active_ = true;
    ++g_depth;
    g_rawFd = fd_;
    struct termios raw = saved;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG | IEXTEN);
    raw.c_iflag &= ~static_cast<tcflag_t>(IXON | ICRNL | INLCR | IGNCR | BRKINT | ISTRIP);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    // TCSAFLUSH drops keys typed before the prompt appeared: they must not answer it.
    if (tcsetattr(fd_, TCSAFLUSH, &raw) != 0) {
      Leave();
      return false;
    }
    return true;
  }

  void Leave() {
    if (nested_) {
      nested_ = false;
      --g_depth;
      tcsetattr(fd_, TCSADRAIN, &nestedSaved_);
      return;
    }
    if (!active_) return;
    active_ = false;
    --g_depth;
    g_rawFd = -1;
    tcsetattr(fd_, TCSADRAIN, &g_savedTermios);
    for (size_t i = 0; i < kSignalCount; ++i)
      if (g_installed[i]) {
        sigaction(kCaughtSignals[i], &g_oldActions[i], nullptr);
        g_installed[i] = false;
      }
  }

 private:
  int fd_;
  bool active_ = false;
  bool nested_ = false;
  struct termios nestedSaved_ {};
};

class TtyFile {
 public:
  explicit TtyFile(const std::string& device)
      : fd_(open(device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC)) {}
  ~TtyFile() {
    if (fd_ >= 0) close(fd_);
  }
  TtyFile(const TtyFile&) = delete;
  TtyFile& operator=(const TtyFile&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

void WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

// 1252 text for the screen: control characters (which could move the cursor or start escape
// sequences) become '?', line feeds stay; then UTF-8.
std::string ForScreen(const std::string& ansi) {
  std::string clean = ansi;
  for (char& ch : clean) {
    auto b = static_cast<unsigned char>(ch);
    bool c0 = b < 0x20 && b != '\n';
    bool c1 = b == 0x7F || b == 0x81 || b == 0x8D || b == 0x8F || b == 0x90 || b == 0x9D;
    if (c0 || c1) ch = '?';
  }
  return codepage::AnsiToUtf8(clean);
}

std::string Heading(const std::string& caption) {
  std::string line = "\n" + ForScreen(caption) + "\n";
  line.append(caption.empty() ? 0 : caption.size(), '-');
  return line + "\n";
}

// "Replace &All" -> "Replace [A]ll"; "&&" -> "&".
std::string ButtonLabel(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '&' && i + 1 < text.size()) {
      ++i;
      if (text[i] == '&')
        out += '&';
      else
        out += std::string("[") + text[i] + "]";
      continue;
    }
    out += text[i];
  }
  return ForScreen(out);
}

constexpr int kTimeout = -1;
constexpr int kClosed = -2;
constexpr int kInterrupted = -3;
constexpr unsigned char kEsc = 0x1B;
constexpr unsigned char kCtrlC = 0x03;
// How long a following byte may take to count as part of the same key (Alt+letter, arrows).
constexpr int kSequenceMs = 80;

// One byte from the terminal; kTimeout after timeoutMs (negative: wait for ever), kClosed
// when the terminal is gone, kInterrupted when a caught signal arrived. A signal may be
// handled on another thread, which does not interrupt this one's wait, so an endless wait
// looks at the flag every so often.
int ReadByte(int fd, int timeoutMs) {
  constexpr int kSignalCheckMs = 200;
  for (;;) {
    if (g_signalled) return kInterrupted;
    pollfd p{};
    p.fd = fd;
    p.events = POLLIN;
    int ready = poll(&p, 1, timeoutMs < 0 ? kSignalCheckMs : timeoutMs);
    if (ready < 0) {
      if (errno == EINTR) continue;
      return kClosed;
    }
    if (ready == 0) {
      if (timeoutMs < 0) continue;
      return kTimeout;
    }
    if ((p.revents & POLLIN) == 0) return kClosed;
    unsigned char byte = 0;
    ssize_t n = read(fd, &byte, 1);
    if (n == 1) return byte;
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    return kClosed;
  }
}

// The rest of a terminal escape sequence (cursor keys and the like), read and dropped.
void SkipSequence(int fd, int introducer) {
  if (introducer == 'O') {
    ReadByte(fd, kSequenceMs);
    return;
  }
  for (int i = 0; i < 16; ++i) {
    int b = ReadByte(fd, kSequenceMs);
    if (b < 0 || (b >= 0x40 && b <= 0x7E)) return;
  }
}

bool IsMnemonicKey(int b) { return b > 0x20 && b < 0x7F; }

// What a key press means: a command id, 0 for a key that does nothing, or kClosed /
// kInterrupted when the prompt cannot go on.
int NextCommand(int fd, const DialogState& state) {
  int b = ReadByte(fd, -1);
  if (b == kClosed || b == kInterrupted) return b;
  if (b == '\r' || b == '\n') return state.DefaultCommand();
  if (b == kCtrlC) return IDCANCEL;
  if (b == kEsc) {
    int next = ReadByte(fd, kSequenceMs);
    if (next == kTimeout) return IDCANCEL;  // Esc on its own
    if (next == kClosed || next == kInterrupted) return next;
    if (next == '[' || next == 'O') {
      SkipSequence(fd, next);
      return 0;
    }
    if (IsMnemonicKey(next)) return state.CommandForMnemonic(static_cast<char>(next));
    return 0;
  }
  if (IsMnemonicKey(b)) return state.CommandForMnemonic(static_cast<char>(b));
  return 0;
}

}  // namespace

intptr_t TerminalHost::RunModal(const DialogTemplate&, DialogState& state) {
  std::lock_guard<std::recursive_mutex> lock(g_terminalMutex);
  TtyFile tty(device_);
  if (tty.fd() < 0) return -1;
  RawMode raw(tty.fd());
  if (!raw.Enter()) return -1;

  state.Initialize();
  if (state.Ended()) return state.Result();

  std::string screen = Heading(state.Caption());
  for (const DialogControl& c : state.Controls())
    if (c.kind == DialogItem::Static && !c.text.empty()) screen += ForScreen(c.text) + "\n";
  screen += "\n ";
  for (const DialogControl& c : state.Controls()) {
    if (c.kind == DialogItem::Static) continue;
    std::string label = ButtonLabel(c.text);
    screen += c.kind == DialogItem::DefPushButton ? " <" + label + ">" : "  " + label;
  }
  WriteAll(tty.fd(), screen + "  ");

  for (;;) {
    int command = NextCommand(tty.fd(), state);
    bool mustEnd = command == kClosed || command == kInterrupted;
    if (mustEnd) command = IDCANCEL;
    if (command == 0) {
      WriteAll(tty.fd(), "\a");
      continue;
    }
    state.Command(command);
    if (state.Ended()) {
      const DialogControl* pressed = state.Control(command);
      std::string answer = pressed != nullptr ? ForScreen(StripMnemonic(pressed->text)) : "";
      WriteAll(tty.fd(), "\n-> " + answer + "\n");
      return state.Result();
    }
    if (mustEnd) {
      WriteAll(tty.fd(), "\n");
      return -1;
    }
  }
}

int TerminalHost::MessageBox(const std::string& text, const std::string& caption, unsigned) {
  std::lock_guard<std::recursive_mutex> lock(g_terminalMutex);
  TtyFile tty(device_);
  if (tty.fd() < 0) return 0;
  RawMode raw(tty.fd());
  if (!raw.Enter()) return 0;
  WriteAll(tty.fd(), Heading(caption) + ForScreen(text) + "\n\n  <OK>  ");
  for (;;) {
    int b = ReadByte(tty.fd(), -1);
    if (b == kEsc) ReadByte(tty.fd(), kSequenceMs);  // Esc alone, or the start of a key
    // A box with only OK closes with OK whichever way it is closed.
    if (b == '\r' || b == '\n' || b == kEsc || b == kCtrlC || b == kClosed || b == kInterrupted)
      break;
    WriteAll(tty.fd(), "\a");
  }
  WriteAll(tty.fd(), "\n");
  return IDOK;
}

}  // namespace qx::ui
