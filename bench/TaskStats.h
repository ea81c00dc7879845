// SPDX-License-Identifier: MIT
// What each thread of this process has cost so far, read from
// /proc/self/task: the benchmarks charge CPU and wake-ups to the library's
// or a server's threads by name or by thread id.
#pragma once

#include <dirent.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace wcanbench {

struct TaskStat {
  int tid = 0;
  std::string name;
  unsigned long long cpuNs = 0;
  unsigned long long wakeups = 0;     // voluntary context switches
  unsigned long long preemptions = 0; // involuntary ones
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
    s.tid = std::atoi(entry->d_name);
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
        else if (std::sscanf(line, "nonvoluntary_ctxt_switches: %llu", &n) == 1)
          s.preemptions += n;
      std::fclose(f);
    }
    stats.push_back(std::move(s));
  }
  closedir(dir);
  return stats;
}

} // namespace wcanbench
