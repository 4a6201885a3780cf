// What publishing and copying take alone, beside what gateway and loader take.
#pragma once

#include <string>

#include "gateway/loader/Database.h"

namespace corvid::bench {

// Each prints a line, for posts of so many events.
// Publishes messages with the posts' bodies, so many under way, from this process.
void measureBarePublish(const std::string& logURL, int nodes, int events, int seconds);
// Copies rows of such posts into a table with the loader's columns, and without indexes, in
// transactions of 500 posts.
void measureBareCopy(fleet::Database& database, int events);

}  // namespace corvid::bench
