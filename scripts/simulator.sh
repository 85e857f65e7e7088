# Sourced by run.sh and desk.sh: with no real device attached, starts kavrel-devsim's
# simulated iPhone on a private usbmuxd socket and points the device libraries at it.
# Sets sim_pid, sim_dir and sock; the simulator stops when the script exits.
#   start_simulator PATH_TO_KAVREL_DEVSIM
sim_pid=""
sim_dir=""
stop_sim() {
  if [ -n "$sim_pid" ]; then
    kill "$sim_pid" 2>/dev/null || true
    wait "$sim_pid" 2>/dev/null || true
    sim_pid=""
  fi
  [ -n "$sim_dir" ] && rm -rf "$sim_dir"
  sim_dir=""
  return 0
}
trap stop_sim EXIT

start_simulator() {
  local devsim=$1
  if [ -n "$(idevice_id -l 2>/dev/null || true)" ] || [ ! -x "$devsim" ]; then
    return 0
  fi
  sim_dir=$(mktemp -d)
  sock="$sim_dir/usbmuxd.sock"
  "$devsim" --socket "$sock" --state "$sim_dir/state" iphone >"$sim_dir/devsim.log" 2>&1 &
  sim_pid=$!
  export USBMUXD_SOCKET_ADDRESS="UNIX:$sock"
  for _ in $(seq 100); do
    "$devsim" ctl --socket "$sock" list >/dev/null 2>&1 && break
    sleep 0.1
  done
  echo
  echo "(no device attached: using kavrel-devsim's simulated iPhone at $sock)"
}
