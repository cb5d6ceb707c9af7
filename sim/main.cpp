// vantor-sim: the simulated unit's database shell server.
#include <signal.h>
#include <sys/resource.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "DiscoveryResponder.h"
#include "ShellSession.h"
#include "SimDatabase.h"
#include "SimOptions.h"
#include "SimReplicas.h"
#include "SimServer.h"
#include "Sock.h"
#include "daemon.h"
#include "debugger.h"
#include "regular_file.h"

namespace {

void on_exit_signal(int)
{
    daemon_should_exit = true;
}

void install_signals()
{
    struct sigaction action = {};
    action.sa_handler = on_exit_signal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    // A client that closes mid-answer must surface as EPIPE, not kill us.
    signal(SIGPIPE, SIG_IGN);
}

// Each client holds about six descriptors (socket, its wake-up copy, an
// eventfd, the database and its journal files): take all the system allows.
void raise_descriptor_limit()
{
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) syslog_safe(4, "<vantor-sim> Unable to raise the descriptor limit (%d).", errno);
}

// A fresh database in a private directory; `dir` is removed again at exit.
bool make_temporary_db(std::string& dir, std::string& path)
{
    char name[] = "/tmp/vantor-sim.XXXXXX";
    if (!mkdtemp(name)) {
        syslog_safe(3, "<vantor-sim> Unable to make a temporary directory.");
        return false;
    }
    dir = name;
    path = dir + "/vantor.db";
    return true;
}

void remove_temporary_db(const std::string& dir, const std::string& path)
{
    sim_db_remove(path);
    (void)rmdir(dir.c_str());
}

// The centrals of the --centrals file, if one is given.
bool load_centrals(const std::string& path, CentralTable& centrals)
{
    std::string text, error;
    int rv = regular_file_read(path.c_str(), kSimMaxCentralsFile, text);
    if (rv == 0 && centrals.Parse(text, error)) return true;
    if (rv < 0) error = strerror(-rv);
    syslog_safe(3, "<vantor-sim> Centrals file %s: %s.", path.c_str(), error.c_str());
    return false;
}

int serve(const SimOptions& options, const std::string& dbPath, bool temporary)
{
    ShellShared shared;
    if (!options.centrals.empty() && !load_centrals(options.centrals, shared.centrals)) return 1;
    if (!sim_db_prepare(dbPath, options.events)) return 1;
    shared.dbPath = dbPath;
    SimReplicas replicas(options.replicas, dbPath);
    if (options.replicas.enabled && !replicas.Start()) return 1;
    if (options.replicas.enabled) shared.replicas = &replicas;
    shared.notReadyLeft = options.notReady;
    Sock::DefaultLinkDeadTimeout(options.idleTimeout == 0 ? -1 : options.idleTimeout);
    SimServer server(shared, options.listen, options.maxClients);
    std::string bound;
    if (!server.Start(bound)) return 1;
    std::unique_ptr<DiscoveryResponder> discovery;
    if (!sim_discovery_start(options, discovery)) return 1;
    // The one line on standard output: tells a starter where to connect.
    printf("vantor-sim listening on %s, database %s\n", bound.c_str(), dbPath.c_str());
    fflush(stdout);
    syslog_safe(6, "<vantor-sim> Listening on %s, database %s.", bound.c_str(), dbPath.c_str());
    server.Run();
    replicas.Stop();
    if (temporary && options.replicas.enabled && options.replicas.dir.empty()) replicas.RemoveFiles();
    syslog_safe(6, "<vantor-sim> Stopped.");
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    SimOptions options;
    std::string error;
    if (!sim_parse_options(argc, argv, options, error)) {
        fprintf(stderr, "vantor-sim: %s\n%s", error.c_str(), kSimUsage);
        return 2;
    }
    if (options.help) {
        fputs(kSimUsage, stdout);
        return 0;
    }
    install_signals();
    raise_descriptor_limit();
    std::string tempDir, dbPath = options.db;
    if (dbPath.empty() && !make_temporary_db(tempDir, dbPath)) return 1;
    int status = serve(options, dbPath, !tempDir.empty());
    if (!tempDir.empty()) remove_temporary_db(tempDir, dbPath);
    return status;
}
