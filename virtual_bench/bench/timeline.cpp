#include "bench/timeline.h"

#include <chrono>
#include <cstdio>
#include <iostream>

double epoch_seconds() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string in_log_form(double seconds) {
  char text[40];
  std::snprintf(text, sizeof text, "%.6f", seconds);
  return text;
}

void Timeline::says(const std::string& who, const std::string& what) const {
  char when_and_who[60];
  std::snprintf(when_and_who, sizeof when_and_who, "%9.3f s  %-8s ", epoch_seconds() - start_, who.c_str());
  std::cout << when_and_who << what << std::endl;
}
