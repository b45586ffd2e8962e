// `quern trace`: reading the memory trace files that libquern_sg_sve_utils writes.
#pragma once

// argv[0] is "trace". Returns the process exit status: 0, 1 for a file that
// cannot be read as a trace, 2 for bad usage.
int trace_main(int argc, char** argv);
