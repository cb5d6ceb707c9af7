// The simulator's SQLite database: creating and seeding a fresh file, and
// opening one connection per client with the settings the protocol needs.
#pragma once

#include <sqlite3.h>

#include <string>

// Most extra sample events a fresh database can be seeded with.
constexpr long kSimMaxSeedEvents = 10000000;

// Makes sure `path` holds a usable database. A missing file is created with
// the sample schema and rows plus `extraEvents` generated Events rows; an
// existing non-empty file is used as it is (an empty one is seeded). Either way the journal becomes WAL, so
// readers never block the writer. Returns false (logged) when the file cannot
// be opened, created or seeded; a file this call created is then removed.
bool sim_db_prepare(const std::string& path, long extraEvents);

// Removes the database file and its journal files; missing ones are fine.
void sim_db_remove(const std::string& path);

// Opens a client connection to a prepared database: busy time-out 5 s,
// double-quoted string literals accepted, long statements interruptible by
// `daemon_should_exit`. Returns the handle (close with sqlite3_close) or null
// (logged) on failure.
sqlite3* sim_db_open(const std::string& path);

// Creates the sample schema and rows on an empty database; `extraEvents`
// more Events rows are generated. Returns false (logged) on failure.
bool sim_db_seed(sqlite3* db, long extraEvents);
