#!/bin/bash
# SPDX-License-Identifier: MIT
# CPU of the whole `wcan busload` or `wcan top` on simulated type 66 buses at
# full load (1 Mbit/s, one sender per bus sending 8-byte frames as fast as
# the paced bus takes them), from the tool's CPU time in /proc.
#
#   bench/monitor_cpu.sh WCAN TOOL IDS [SECONDS] [RUNS]
#     TOOL  busload | top | busload-local | top-local
#     IDS   one (identifier 123 on every bus) | random (any 11-bit one)
#
# busload/top: `wcan --sim 66 serve` and one `wcan gen --connect` per bus on
# all 8 buses, the tool with --connect on all 8 (every channel receives its
# partner's frames, and the server hands each client the other client's).
# The -local forms: a shared simulation host of a private runtime folder,
# senders on channels 0, 2, 4, 6 and the tool on 1, 3, 5, 7 of the same
# adapter; the tool's own (main) thread and the library's threads are given
# apart. top runs in a 160x50 tmux window. Each run prints one line:
#   TOOL IDS cpu% µs/frame frames/s [tool% library%] load average
set -euo pipefail

WCAN=$(realpath "$1")
TOOL=$2
IDS=$3
SECONDS_RUN=${4:-10}
RUNS=${5:-3}
WARMUP=3
RATE=(--bitrate 1000000)
TMUX_SOCKET=wcan-monitor-bench-$$
case $IDS in
one) ID=(--id 123) ;;
random) ID=(--id r) ;;
*) echo "IDS is one or random" >&2; exit 2 ;;
esac

RUNTIME=$(mktemp -d /tmp/wcan-monitor-bench.XXXXXX)
PIDS=()
cleanup() {
  tmux -L "$TMUX_SOCKET" kill-server 2>/dev/null || true
  for p in "${PIDS[@]}"; do kill -INT "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  XDG_RUNTIME_DIR=$RUNTIME "$WCAN" sim stop >/dev/null 2>&1 || true
  rm -rf "$RUNTIME"
}
trap cleanup EXIT

# A task's time on a CPU in nanoseconds (user and system, as utime+stime in
# its stat file, but not rounded to clock ticks: 10 s of 3 % are only 30).
ns_of() { cut -d' ' -f1 "$1" 2>/dev/null || echo 0; }

# "total main" nanoseconds of a process: all its threads, and the main one.
process_ns() {
  local total=0 t
  for t in /proc/"$1"/task/*/schedstat; do total=$((total + $(ns_of "$t"))); done
  echo "$total $(ns_of /proc/"$1"/task/"$1"/schedstat)"
}

start_remote() {
  # A port and a simulation of the run's own: the last run's may still be
  # closing.
  PORT=$((30000 + ($$ * 7 + RUN) % 5000))
  SERVER=127.0.0.1:$PORT
  WCAN_SIM_PRIVATE=1 "$WCAN" --sim 66 serve --port "$PORT" "${RATE[@]}" >/dev/null 2>&1 &
  PIDS+=($!)
  sleep 1
  for ch in 0 1 2 3 4 5 6 7; do
    "$WCAN" gen --connect "$SERVER" "wcan66-0-$ch" --len 8 "${ID[@]}" >/dev/null 2>&1 &
    PIDS+=($!)
  done
  BUSES=()
  for ch in 0 1 2 3 4 5 6 7; do BUSES+=("wcan66-0-$ch"); done
  TOOL_ARGS=(--connect "$SERVER" "${BUSES[@]}" "${RATE[@]}")
  TOOL_ENV=()
}

start_local() {
  export XDG_RUNTIME_DIR=$RUNTIME WCAN_SIM_LINGER_MS=500
  unset WCAN_SIM_PRIVATE
  for ch in 0 2 4 6; do
    "$WCAN" --sim 66 gen 66 0 "$ch" "${RATE[@]}" --len 8 "${ID[@]}" >/dev/null 2>&1 &
    PIDS+=($!)
  done
  sleep 1
  TOOL_ARGS=(66 0 1 3 5 7 "${RATE[@]}")
  TOOL_ENV=(env -u WCAN_SIM_PRIVATE XDG_RUNTIME_DIR="$RUNTIME" WCAN_SIM_LINGER_MS=500)
}

# Starts the tool; sets TOOL_PID.
start_tool() {
  local what=${TOOL%-local}
  local sim=()
  [[ $TOOL == *-local ]] && sim=(--sim 66)
  if [[ $what == busload ]]; then
    "${TOOL_ENV[@]}" "$WCAN" "${sim[@]}" busload "${TOOL_ARGS[@]}" >"$RUNTIME/busload.txt" &
    TOOL_PID=$!
    PIDS+=("$TOOL_PID")
  else
    tmux -L "$TMUX_SOCKET" new-session -d -s top -x 160 -y 50 \
      "exec ${TOOL_ENV[*]} $WCAN ${sim[*]} top ${TOOL_ARGS[*]}"
    TOOL_PID=$(tmux -L "$TMUX_SOCKET" display -p -t top '#{pane_pid}')
  fi
}

# Frames per second the tool saw over its last intervals: busload's lines,
# or top's channel lines.
frames_per_second() {
  if [[ $TOOL == busload* ]]; then
    # One block of lines per second; the last SECONDS_RUN-1 whole ones.
    awk 'NF == 0 { if (n) s[++k] = sum; sum = 0; n = 0; next }
         { sum += $2; n = 1 }
         END { if (n) s[++k] = sum; m = 0; t = 0
               for (i = k; i > 1 && m < '"$((SECONDS_RUN - 1))"'; --i) { t += s[i]; ++m }
               printf "%.0f", m ? t / m : 0 }' "$RUNTIME/busload.txt"
  else
    # The mean of the samples top_sample took.
    awk '{ s += $1; ++n } END { printf "%.0f", n ? s / n : 0 }' "$RUNTIME/top-rates.txt"
  fi
}

# top's channel lines once: its frames/s of the last second, summed.
top_sample() {
  tmux -L "$TMUX_SOCKET" capture-pane -p -t top |
    awk '{ for (i = 2; i <= NF; ++i) if ($i == "frames/s") s += $(i - 1) } END { print s + 0 }' \
      >>"$RUNTIME/top-rates.txt"
}

# Waits out the measured time; top's rate is sampled once a second on the way.
measure_wait() {
  if [[ $TOOL == busload* ]]; then
    sleep "$SECONDS_RUN"
    return
  fi
  for ((i = 0; i < SECONDS_RUN; ++i)); do
    sleep 1
    top_sample
  done
}

run_once() {
  PIDS=()
  if [[ $TOOL == *-local ]]; then start_local; else start_remote; fi
  start_tool
  sleep "$WARMUP"
  read -r total0 main0 < <(process_ns "$TOOL_PID")
  measure_wait
  read -r total1 main1 < <(process_ns "$TOOL_PID")
  local fps
  fps=$(frames_per_second)
  awk -v t="$((total1 - total0))" -v m="$((main1 - main0))" -v ns=1e9 -v s="$SECONDS_RUN" \
    -v fps="$fps" -v tool="$TOOL" -v ids="$IDS" -v local="${TOOL#*-}" -v load="$(cut -d' ' -f1-3 /proc/loadavg)" '
    BEGIN {
      cpu = 100 * t / ns / s
      us = fps > 0 ? 1e6 * t / ns / (fps * s) : 0
      printf "%-13s %-6s %5.2f %% %5.2f us/frame %6d frames/s", tool, ids, cpu, us, fps
      if (local == "local")
        printf "  tool %5.2f %% library %5.2f %%", 100 * m / ns / s, 100 * (t - m) / ns / s
      printf "  load %s\n", load
    }'
  cleanup
  trap cleanup EXIT
  RUNTIME=$(mktemp -d /tmp/wcan-monitor-bench.XXXXXX)
}

for ((RUN = 0; RUN < RUNS; ++RUN)); do run_once; done
