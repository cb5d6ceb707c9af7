// The --timeout=SECONDS (and --interval=SECONDS) values of the commands.
// The parsers print nothing: each command reports a bad value in its own form.
#pragma once

// Whole seconds 1 to 3600, digits only (no sign, blank or leading zero):
// connect, greeting and each wait of exec, mail, sql and sql_file.
const int kMinTimeoutSeconds = 1;
const int kMaxTimeoutSeconds = 3600;
bool parse_timeout_seconds(const char* text, int& seconds);

// A decimal number of seconds from `min` to `max` ("1", "0.5", "2.25"; no
// sign, exponent or blank; a leading zero only before the point): how long
// discover listens, backlog's --interval. `seconds` is unchanged on failure.
bool parse_decimal_seconds(const char* text, double min, double max, double& seconds);
