// The text layouts of discovery records: one brief line per unit, with
// `full` every field below it, as a tree of masters and slaves, or JSON.
#pragma once

#include <list>
#include <string>

#include "Discover.h"

// A byte below 0x20 or 0x7f as \xHH and a backslash as \\; others as they are.
std::string listing_escape(const std::string& text);

// The address part of "remote" ("a.b.c.d:port"), or "" when absent.
std::string record_address(const DiscoverRecord& record);

// The unit's brief line (mac, address, hwid, hostname, version, masterMac;
// "-" for an absent or empty value) after `indent` spaces; with `full`,
// every field as "    key=value" in byte order below it, indented as well.
std::string printNode(const DiscoverRecord& record, bool full, size_t indent);

// Every record once, in list order.
std::string listing_flat(const std::list<DiscoverRecord>& records, bool full);
// Roots (no masterMac, an empty one, their own MAC or one no answering unit
// has) in list order, each followed by its slaves four spaces further in;
// a slave belongs to the first record with its master's MAC (MACs compared
// ignoring case). Records no root reaches (master cycles) start trees of
// their own afterwards, in list order. Every record appears once.
std::string listing_tree(const std::list<DiscoverRecord>& records, bool full);
// One array of objects with every field, in list order; "[]" when empty.
std::string listing_json(const std::list<DiscoverRecord>& records);
