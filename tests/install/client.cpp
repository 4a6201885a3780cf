// A client in C++ against the installed library.
#include <corvid/corvid.hpp>
#include <cstdio>

int main() {
  corvid::client::Dictionary info;
  if (!info.set(kCorvidSessionInfoClientType, 5)) return 2;
  corvid::client::Session session;
  if (!session.status()) return 3;
  std::printf("%s %d\n", corvid_version(), session.connect().code());
}
