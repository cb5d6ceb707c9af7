// Write errors on standard output: remembered with their errno wherever
// they happen (stdio's own flushes included) and reported once by main.
#pragma once

// Puts `stdout` on a stream whose writes remember the first error; call
// once at start, before anything is printed. Buffering is as before: by
// line on a terminal, in blocks otherwise.
void output_watch();

// Records a write error on standard output made outside stdio (a command
// that copies bytes with write(2) itself). The first error is kept.
void output_write_failed(int err);

// After the handler: flushes standard output. On a write error other than
// EPIPE (a closed pipe ends the process by SIGPIPE as it always has) prints
// "vtest: write error: <strerror>" on standard error and returns
// kExitWriteError when `status` is 0; otherwise returns `status`.
int output_finish(int status);
