#ifndef BENCH_EXIT_STATUS_H
#define BENCH_EXIT_STATUS_H

// Of the program bench.
enum ExitStatus { kAsExpected = 0, kOtherwise = 1, kNotUnderstood = 2, kNotAllowed = 77 };

#endif
