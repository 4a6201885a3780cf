#include "gateway/log/LogURL.h"

#include "gateway/log/AMQPPublisher.h"
#include "gateway/log/AMQPReader.h"

namespace corvid::fleet {

std::unique_ptr<LogPublisher> makeLog(const std::string& url) {
  return std::make_unique<AMQPPublisher>(amqpAddressFrom(url));
}

std::unique_ptr<LogReader> makeLogReader(const std::string& url,
                                         const std::vector<std::string>& streams) {
  return std::make_unique<AMQPReader>(amqpAddressFrom(url), streams);
}

}  // namespace corvid::fleet
