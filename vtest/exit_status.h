// Exit statuses the commands share. exec, mail, discover and ipconfig use
// one family; sql keeps 254 for a failed statement (its -ENOENT) and
// backlog follows the monitoring-plugin convention, each in its own file.
#pragma once

const int kExitOk = 0;
const int kExitRefused = 1;        // refused, or nothing found
const int kExitCannotConnect = 2;  // cannot connect or send
const int kExitTimeout = 3;        // a time-out after connecting
const int kExitLost = 4;           // the connection was lost
// mail's own, after connecting: which part of the dialogue refused.
const int kExitGreetingRefused = 5;  // greeting or EHLO
const int kExitLoginFailed = 6;      // AUTH LOGIN not offered, or refused
const int kExitAddressRefused = 7;   // sender or recipient
const int kExitMessageRefused = 8;   // DATA or the message
const int kExitUsage = 255;        // a command-line error (the handler's -1)
// main's status when writing standard output failed and the command would
// have exited 0: EX_IOERR of sysexits, which no command uses for itself.
const int kExitWriteError = 74;
