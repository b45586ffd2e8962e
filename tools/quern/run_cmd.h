#pragma once

// quern run [launcher options] [client options] -- PROGRAM [ARGS...]
// argv[0] is "run". Returns only on error; otherwise the program replaces the launcher.
int run_main(int argc, char** argv);
