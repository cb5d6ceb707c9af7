// The tool's command handlers. Each takes the whole argument vector (the
// command word is argv[1]) and returns the process's exit status.
#pragma once

class SqlWrapper;

int main_test(int argc, char** argv);
int main_backlog(int argc, char** argv);
int main_discover(int argc, char** argv);
int main_ipconfig(int argc, char** argv);
int main_sql(int argc, char** argv);
// Runs one statement and prints its rows (trailing blanks of `statement`
// are cut in place). 0, or -ENOENT when the statement failed.
int exec_sql(SqlWrapper& sql, char* statement, bool pairs, bool verbose);
int main_monitor(int argc, char** argv);
int main_elf(int argc, char** argv);
int main_exec(int argc, char** argv);
int main_mail(int argc, char** argv);
int main_time(int argc, char** argv);
int main_secExec(int argc, char** argv);
int main_usb(int argc, char** argv);
int main_init(int argc, char** argv);

// Usage text on standard error, or only the entry of the command `word`;
// returns -1.
int usage(const char* program, const char* word = nullptr);
