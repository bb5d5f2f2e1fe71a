// Times one report upload through UploadFile to a loopback server that
// counts and drops the body, and prints the size, the time, the throughput
// and the peak resident memory of the upload (the file is made first, and
// the peak is counted from the upload's start).
//
//   net_upload_bench [megabytes]    (default 50)

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "net/upload.h"

int main(int argc, char** argv) {
  const long long size = (argc > 1 ? std::strtoll(argv[1], nullptr, 10) : 50) << 20;
  char dir_template[] = "/tmp/wlbench-XXXXXX";
  if (mkdtemp(dir_template) == nullptr)
    return 1;
  const std::string file = std::string(dir_template) + "/bench.data";
  {
    std::ofstream out(file);
    for (long long n = 0; n < size; n += 72)
      out << "F ./some/directory/of/the/build/tree/object-file.o 123456 1602666300 abc\n";
  }

  int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
      listen(listener, 1) != 0)
    return 1;
  long long received = 0;
  std::thread server([listener, size, &received] {
    int connection = accept(listener, nullptr, nullptr);
    timeval wait{30, 0};
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    std::vector<char> buffer(1 << 20);
    for (ssize_t n; received <= size && (n = recv(connection, buffer.data(), buffer.size(), 0)) > 0;)
      received += n;
    const char reply[] = "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nOK\n";
    (void)send(connection, reply, sizeof reply - 1, MSG_NOSIGNAL);
    close(connection);
  });

  std::ofstream("/proc/self/clear_refs") << "5";  // restart the peak memory count
  const UploadTarget target{"http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) +
                                "/weftlane/LogUpload",
                            "bench", "me", "m1", "false", "2026-01-02 03_04_05"};
  const auto start = std::chrono::steady_clock::now();
  UploadFile(target, file.c_str());
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  server.join();
  close(listener);
  unlink(file.c_str());
  rmdir(dir_template);
  std::printf("upload bench: file %.1f MB, received %.1f MB, %.2f s, %.1f MB/s, peak ",
              size / 1048576.0, received / 1048576.0, took.count(),
              size / 1048576.0 / took.count());
  std::fflush(stdout);
  return std::system("grep '^VmHWM' /proc/$PPID/status") == 0 ? 0 : 1;
}
