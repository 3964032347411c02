// Built with the fuzz build's flags and run by tools/fuzz.sh: undefined
// behaviour must end the process, as an AddressSanitizer finding does, or a
// fuzzing run would report it once and carry on past it.
#include <climits>
#include <cstdio>

int main(int argc, char**) {
  volatile int big = INT_MAX;
  const int sum = big + argc;  // signed overflow
  std::printf("went on after the overflow (%d)\n", sum);
  return 0;
}
