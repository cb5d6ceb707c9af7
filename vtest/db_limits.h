// Limits of the tool's database connections, one home each.
#pragma once

// Line length of the monitor and the self-test.
const int kShortLineLength = 2048;
// Line length of sql and sql_file: a cell of a megabyte comes whole. The
// buffer grows to it only as lines need it.
const int kSqlLineLength = 1 << 20;
// Without --timeout, seconds a connect and each wait of the greeting may
// take (answers are unbounded: long statements are legitimate).
const int kDefaultConnectSeconds = 10;
