#include <unistd.h>

#include <cstdint>

#include "ScriptReader.h"

// Arbitrary script bytes through a pipe into the line reader: line ends, NUL
// bytes, lone CRs, byte-order marks, lines past the cap (the first byte).
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    int fds[2];
    if (size < 1 || size > 60000 || pipe(fds) != 0) return 0;
    const size_t cap = data[0];
    bool written = write(fds[1], data + 1, size - 1) == static_cast<ssize_t>(size - 1);
    close(fds[1]);
    ScriptReader reader(fds[0], cap);
    for (ScriptReader::Result r = reader.Next(); written && r != ScriptReader::kEnd && r != ScriptReader::kError;
         r = reader.Next())
        if (r == ScriptReader::kRefused) (void)reader.Preview();
    close(fds[0]);
    return 0;
}
