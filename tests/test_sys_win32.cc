#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <aclapi.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "test_sys.h"

namespace testsys {

int process_id() { return static_cast<int>(::GetCurrentProcessId()); }

double thread_cpu_ms() {
  FILETIME created, exited, kernel, user;
  if (!::GetThreadTimes(::GetCurrentThread(), &created, &exited, &kernel, &user)) return 0;
  const auto ticks = [](const FILETIME& ft) {
    return static_cast<double>((static_cast<unsigned long long>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime);
  };
  return (ticks(kernel) + ticks(user)) / 1e4;  // 100 ns ticks
}

namespace {

// One instance of the pipe: waiting for a client, then reading from it.
struct Instance {
  HANDLE pipe = INVALID_HANDLE_VALUE;
  HANDLE event = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  OVERLAPPED ov{};
  bool connected = false;
  bool pending = false;  // ov belongs to a call in flight
  char buf[4096];

  // Starts the next call (ConnectNamedPipe, then ReadFile), whose end sets
  // event; false when the instance is done for.
  bool next() {
    ov = OVERLAPPED{};
    ov.hEvent = event;
    ::ResetEvent(event);
    const BOOL done = connected ? ::ReadFile(pipe, buf, sizeof buf, nullptr, &ov) : ::ConnectNamedPipe(pipe, &ov);
    const DWORD error = ::GetLastError();
    pending = done || error == ERROR_IO_PENDING;
    // A client that came (and maybe went) before ConnectNamedPipe: what it
    // wrote is read next.
    if (!connected && (error == ERROR_PIPE_CONNECTED || error == ERROR_NO_DATA)) ::SetEvent(event);
    return pending || ::WaitForSingleObject(event, 0) == WAIT_OBJECT_0;
  }

  ~Instance() {
    // A call in flight ends (cancelled) into ov before ov goes. Only a call
    // in flight is waited for: a finished one never sets the event again.
    DWORD n = 0;
    if (pending && ::CancelIoEx(pipe, &ov)) ::GetOverlappedResult(pipe, &ov, &n, TRUE);
    if (pipe != INVALID_HANDLE_VALUE) ::CloseHandle(pipe);
    if (event != nullptr) ::CloseHandle(event);
  }
};

}  // namespace

// A spare instance always waits beside the one a client holds, so that a
// writer that reopens the pipe never finds it busy, even before this thread
// has run again; each connected instance is read until its client goes away.
struct PipeServer::State {
  std::string path;
  HANDLE stop = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  std::thread thread;
  std::vector<std::unique_ptr<Instance>> instances;
  std::function<void(const char*, std::size_t)> on_data;

  void listen() {
    auto in = std::make_unique<Instance>();
    const std::wstring name(path.begin(), path.end());
    in->pipe = ::CreateNamedPipeW(name.c_str(), PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED,
                                  PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
                                  PIPE_UNLIMITED_INSTANCES, 4096, 4096, 0, nullptr);
    if (in->pipe == INVALID_HANDLE_VALUE || in->event == nullptr || !in->next()) {
      throw std::runtime_error("named pipe failed");
    }
    instances.push_back(std::move(in));
  }

  void serve() {
    for (;;) {
      std::vector<HANDLE> waits{stop};
      for (const auto& in : instances) waits.push_back(in->event);
      const DWORD r = ::WaitForMultipleObjects(static_cast<DWORD>(waits.size()), waits.data(), FALSE, INFINITE);
      if (r == WAIT_OBJECT_0 || r >= WAIT_OBJECT_0 + waits.size()) break;
      const std::size_t i = r - WAIT_OBJECT_0 - 1;
      Instance& in = *instances[i];
      DWORD n = 0;
      const bool ok = !in.pending || ::GetOverlappedResult(in.pipe, &in.ov, &n, FALSE);
      in.pending = false;
      if (!in.connected) {
        in.connected = true;
        listen();  // takes over the waiting
      } else if (ok && n > 0) {
        on_data(in.buf, n);
      }
      if (!ok || !in.next()) instances.erase(instances.begin() + static_cast<long>(i));
    }
    // Cancelled here, on the thread that started most of the calls.
    instances.clear();
  }
};

PipeServer::PipeServer(const std::string& /*dir*/, std::function<void(const char*, std::size_t)> on_data)
    : state_(std::make_unique<State>()) {
  static std::atomic<unsigned> counter{0};
  State& s = *state_;
  s.path = "\\\\.\\pipe\\vexo-test-" + std::to_string(::GetCurrentProcessId()) + "-" + std::to_string(++counter);
  s.on_data = std::move(on_data);
  if (s.stop == nullptr) throw std::runtime_error("CreateEvent failed");
  s.listen();
  s.listen();
  s.thread = std::thread([&s] { s.serve(); });
}

PipeServer::~PipeServer() {
  State& s = *state_;
  ::SetEvent(s.stop);
  if (s.thread.joinable()) s.thread.join();
  ::CloseHandle(s.stop);
}

const std::string& PipeServer::path() const { return state_->path; }

namespace {

// 100 ns ticks between 1601-01-01 and 1970-01-01.
constexpr long long kEpochTicks = 116444736000000000LL;

long long ns_of(const FILETIME& ft) {
  ULARGE_INTEGER v;
  v.LowPart = ft.dwLowDateTime;
  v.HighPart = ft.dwHighDateTime;
  return (static_cast<long long>(v.QuadPart) - kEpochTicks) * 100;
}

FILETIME filetime_of(long long ns) {
  ULARGE_INTEGER v;
  v.QuadPart = static_cast<ULONGLONG>(ns / 100 + kEpochTicks);
  return FILETIME{v.LowPart, v.HighPart};
}

HANDLE open_for(const std::string& path, DWORD access) {
  return ::CreateFileA(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                       OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
}

}  // namespace

bool file_times(const std::string& path, FileTimes* out) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!::GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &data)) return false;
  out->access_ns = ns_of(data.ftLastAccessTime);
  out->modify_ns = ns_of(data.ftLastWriteTime);
  return true;
}

bool set_file_times(const std::string& path, const FileTimes& t) {
  HANDLE h = open_for(path, FILE_WRITE_ATTRIBUTES);
  if (h == INVALID_HANDLE_VALUE) return false;
  const FILETIME access = filetime_of(t.access_ns), modify = filetime_of(t.modify_ns);
  const BOOL ok = ::SetFileTime(h, nullptr, &access, &modify);
  ::CloseHandle(h);
  return ok != 0;
}

bool owner_only(const std::string& path) {
  PSID owner = nullptr;
  PACL dacl = nullptr;
  PSECURITY_DESCRIPTOR sd = nullptr;
  if (::GetNamedSecurityInfoA(path.c_str(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                              &owner, nullptr, &dacl, nullptr, &sd) != ERROR_SUCCESS) {
    return false;
  }
  bool only = dacl != nullptr;
  for (DWORD i = 0; only && i < dacl->AceCount; ++i) {
    ACCESS_ALLOWED_ACE* ace = nullptr;
    if (!::GetAce(dacl, i, reinterpret_cast<void**>(&ace))) {
      only = false;
    } else if (ace->Header.AceType == ACCESS_ALLOWED_ACE_TYPE && ace->Mask != 0) {
      PSID sid = &ace->SidStart;
      only = ::EqualSid(sid, owner) || ::IsWellKnownSid(sid, WinLocalSystemSid) ||
             ::IsWellKnownSid(sid, WinBuiltinAdministratorsSid);
    }
  }
  ::LocalFree(sd);
  return only;
}

bool file_identity(const std::string& path, platform::FileIdentity* out) {
  HANDLE h = open_for(path, 0);
  if (h == INVALID_HANDLE_VALUE) return false;
  BY_HANDLE_FILE_INFORMATION info{};
  const BOOL ok = ::GetFileInformationByHandle(h, &info);
  ::CloseHandle(h);
  out->volume_serial = info.dwVolumeSerialNumber;
  out->index_high = info.nFileIndexHigh;
  out->index_low = info.nFileIndexLow;
  return ok != 0;
}

const int kErrorExists = ERROR_FILE_EXISTS;
const int kErrorNoFile = ERROR_FILE_NOT_FOUND;
const int kErrorNoFolder = ERROR_PATH_NOT_FOUND;

void ignore_broken_pipe() {}

const bool kTimeWaitBlocksBind = false;
const bool kPosixFileModes = false;

void set_env(const char* name, const char* value) {
  // The C runtime's copy for getenv, the system's for child processes.
  ::_putenv_s(name, value != nullptr ? value : "");
  ::SetEnvironmentVariableA(name, value);
}

namespace {

// One argument quoted as CommandLineToArgvW and the C runtime read it back.
std::string quote_argument(const std::string& arg) {
  if (!arg.empty() && arg.find_first_of(" \t\"") == std::string::npos) return arg;
  std::string out = "\"";
  std::size_t backslashes = 0;
  for (char c : arg) {
    if (c == '\\') {
      ++backslashes;
      continue;
    }
    out.append(c == '"' ? backslashes * 2 + 1 : backslashes, '\\');
    backslashes = 0;
    out += c;
  }
  out.append(backslashes * 2, '\\');
  return out + "\"";
}

}  // namespace

struct Process::State {
  HANDLE process = nullptr;
  HANDLE in_write = nullptr;  // the write end of the child's standard input
  int code = -1;
};

Process::Process(const std::vector<std::string>& argv, const std::string& out_file)
    : state_(std::make_unique<State>()) {
  std::string line;
  for (const auto& a : argv) line += (line.empty() ? "" : " ") + quote_argument(a);
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  HANDLE in_read = nullptr;
  if (!::CreatePipe(&in_read, &state_->in_write, &inherit, 0)) return;
  ::SetHandleInformation(state_->in_write, HANDLE_FLAG_INHERIT, 0);
  HANDLE out = ::GetStdHandle(STD_OUTPUT_HANDLE);
  HANDLE err = ::GetStdHandle(STD_ERROR_HANDLE);
  HANDLE file = INVALID_HANDLE_VALUE;
  if (!out_file.empty()) {
    file = ::CreateFileA(out_file.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                         &inherit, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    out = err = file;
  }
  STARTUPINFOA si{};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdInput = in_read;
  si.hStdOutput = out;
  si.hStdError = err;
  PROCESS_INFORMATION pi{};
  if (::CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi)) {
    ::CloseHandle(pi.hThread);
    state_->process = pi.hProcess;
  }
  ::CloseHandle(in_read);
  if (file != INVALID_HANDLE_VALUE) ::CloseHandle(file);
}

Process::~Process() {
  if (state_->process != nullptr) kill();
  if (state_->in_write != nullptr) ::CloseHandle(state_->in_write);
}

bool Process::started() const { return state_->process != nullptr; }
int Process::id() const { return state_->process != nullptr ? static_cast<int>(::GetProcessId(state_->process)) : -1; }

int Process::wait() {
  if (state_->process == nullptr) return state_->code;
  ::WaitForSingleObject(state_->process, INFINITE);
  DWORD code = 0;
  state_->code = ::GetExitCodeProcess(state_->process, &code) ? static_cast<int>(code) : -1;
  ::CloseHandle(state_->process);
  state_->process = nullptr;
  return state_->code;
}

int Process::stop() {
  DWORD written = 0;
  if (state_->process != nullptr) ::WriteFile(state_->in_write, "q\n", 2, &written, nullptr);
  return wait();
}

int Process::kill() {
  // 137, as a shell reports a SIGKILL.
  if (state_->process != nullptr) ::TerminateProcess(state_->process, 137);
  return wait();
}

void end_helper(int code) {
  std::fflush(nullptr);
  ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(code));
  std::_Exit(code);
}

}  // namespace testsys
