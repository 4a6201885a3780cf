#include "gateway/Program.h"
#include "gateway/log/LogURL.h"

int main(int argc, char** argv) {
  return corvid::fleet::runGateway({argv + (argc > 0), argv + argc}, corvid::fleet::makeLog);
}
