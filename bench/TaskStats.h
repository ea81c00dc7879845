// SPDX-License-Identifier: MIT
// What each thread of this process has cost so far, read from
// /proc/self/task: the benchmarks that run a server in-process charge its
// CPU and wake-ups to its threads by name.
#pragma once

#include <dirent.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace wcanbench {

struct TaskStat {
  std::string name;
  unsigned long long cpuNs = 0;
  unsigned long long wakeups = 0; // voluntary context switches
};

inline std::string readTaskName(const std::string &task) {
  char name[32] = {};
  if (FILE *f = std::fopen((task + "/comm").c_str(), "r")) {
    if (!std::fgets(name, sizeof name, f))
      name[0] = 0;
    std::fclose(f);
  }
  name[strcspn(name, "\n")] = 0;
  return name;
}

inline std::vector<TaskStat> taskStats() {
  std::vector<TaskStat> stats;
  DIR *dir = opendir("/proc/self/task");
  if (dir == nullptr)
    return stats;
  while (dirent *entry = readdir(dir)) {
    if (entry->d_name[0] == '.')
      continue;
    const std::string task = std::string("/proc/self/task/") + entry->d_name;
    TaskStat s;
    s.name = readTaskName(task);
    if (FILE *f = std::fopen((task + "/schedstat").c_str(), "r")) {
      if (std::fscanf(f, "%llu", &s.cpuNs) != 1)
        s.cpuNs = 0;
      std::fclose(f);
    }
    if (FILE *f = std::fopen((task + "/status").c_str(), "r")) {
      char line[128];
      unsigned long long n = 0;
      while (std::fgets(line, sizeof line, f))
        if (std::sscanf(line, "voluntary_ctxt_switches: %llu", &n) == 1)
          s.wakeups += n;
      std::fclose(f);
    }
    stats.push_back(std::move(s));
  }
  closedir(dir);
  return stats;
}

} // namespace wcanbench
