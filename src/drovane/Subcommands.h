// The subcommands; each returns the exit status.
#pragma once

#include "Options.h"

namespace drovane {

int run(const Options& options);
int check(const Options& options);
int tryLines(const Options& options);
int replay(const Options& options);

// These talk to a running drovane. They throw NotRunning and Refused (ControlClient.h).
int cmd(const Options& options);
int send(const Options& options);
int get(const Options& options);
int reload(const Options& options);
int status(const Options& options);
int watch(const Options& options);
int logLevel(const Options& options);
int trace(const Options& options);

}  // namespace drovane
