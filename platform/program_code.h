// The machine code that is mapped into the process: the program's and its libraries'.
#pragma once

namespace quenmark::platform {

// Lets go of the pages of code that have been used so far; those that are used again come back from the system's file
// cache, 64 KB at a time. After start-up that halves the resident memory: most of the code of two dozen libraries runs
// only while they are loaded and the first connections are made. Failure changes nothing.
void UnmapUsedCode();

}  // namespace quenmark::platform
