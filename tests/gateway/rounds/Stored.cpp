#include "tests/gateway/rounds/Stored.h"

#include <algorithm>
#include <map>

#include "base/Reading.h"
#include "gateway/loader/Database.h"
#include "tests/gateway/rounds/Device.h"

namespace corvid::fleet {

namespace {

struct Found {
  std::size_t rows = 0, events = 0, rejections = 0, reasons = 0;
};
// By number; a post without one is behind all that there can be.
using Posts = std::map<std::size_t, Found>;

std::size_t numberIn(const Database::Row& row, std::size_t column) {
  return numberFrom<std::size_t>(row.at(column).value_or("")).value_or(SIZE_MAX);
}

Posts postsOf(const std::string& client, const std::string& target) {
  Database database(target);
  Posts posts;
  for (const auto& row :
       database.run("SELECT payload->>'post', count(*), count(DISTINCT number) FROM corvid.event "
                    "WHERE client_id = $1 GROUP BY 1",
                    {client})) {
    Found& found = posts[numberIn(row, 0)];
    found.rows = numberIn(row, 1);
    found.events = numberIn(row, 2);
  }
  for (const auto& row : database.run(
           "SELECT substring(convert_from(body, 'UTF8') from '\"post\":([0-9]+)'), count(*), "
           "count(nullif(reason, '')) FROM corvid.rejected "
           "WHERE position(convert_to($1, 'UTF8') in body) > 0 GROUP BY 1",
           {"\"client\":\"" + client + "\""})) {
    Found& found = posts[numberIn(row, 0)];
    found.rejections = numberIn(row, 1);
    found.reasons = numberIn(row, 2);
  }
  return posts;
}

}  // namespace

Stored& Stored::operator+=(const Stored& other) {
  lost += other.lost;
  twice += other.twice;
  rejected += other.rejected;
  wrong += other.wrong;
  return *this;
}

Stored storedOf(const Sent& sent, const std::string& target) {
  Posts posts = postsOf(sent.client, target);
  Stored stored;
  for (std::size_t post = 0; post < sent.acknowledged; ++post) {
    const Found& found = posts[post];
    const bool isThere =
        Device::isUnloadable(post) ? found.rejections > 0 : found.events == Device::eventsOfPost;
    if (!isThere) ++stored.lost;
  }
  for (const auto& [post, found] : posts) {
    if (found.rows > found.events || found.rejections > 1) ++stored.twice;
    if (found.rejections > 0) ++stored.rejected;
    const bool isRight = post < sent.posts && found.reasons == found.rejections &&
                         (Device::isUnloadable(post) ? found.rows : found.rejections) == 0;
    if (!isRight) ++stored.wrong;
  }
  return stored;
}

}  // namespace corvid::fleet
