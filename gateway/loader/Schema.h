// What stands in the database.
#pragma once

#include <string>

#include "gateway/loader/Database.h"

namespace corvid::fleet {

// Makes what is missing of the tables and views; any number of loaders may do so at once.
void makeSchema(Database& database);

// Makes the partitions of a day, "2026-11-23", where they are missing.
void makePartitions(Database& database, const std::string& day);

// Drops what was received more than `days` days before today, and forgets the message IDs of then.
// Gives how many partitions went.
std::size_t dropOldPartitions(Database& database, int days);

// Removes every event of a client, and the rejected messages that name it; gives how many rows
// went.
std::size_t removeClient(Database& database, const std::string& client);

}  // namespace corvid::fleet
