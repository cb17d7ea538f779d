#!/usr/bin/env bash
# The daemon's main job, shown on a guest's stay.
#
# Builds the daemon and the two simulators, starts a simulated PMS and a
# simulated Asterisk Manager on loopback ports, writes a configuration and a
# small SQLite PBX database into a temporary folder and runs the daemon in
# the foreground with console logging. Then it plays:
#   act 1: a call captured from the Manager's Cdr event and posted to the PMS;
#   act 2: one guest's stay: check-in, phone bar, do-not-disturb, wake-up
#          booking, a call (in the PBX database), its posting and answer, the
#          wake-up result, check-out.
# Each step says what the PMS saw on the wire and what changed in the PBX
# database. Everything started is stopped at the end. Exit status 0 when
# every step happened, 1 (with the reason) when one did not.
#
# Options: --keep   keep the temporary folder (logs, databases) at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

keep=0
[ "${1:-}" = "--keep" ] && keep=1

bash scripts/setup.sh
build=${ORLANBECK_DEMO_BUILD:-$root/build}
if [ -z "${ORLANBECK_DEMO_BUILD:-}" ]; then
  echo "Building the daemon and the simulators ..."
  cmake -S . -B "$build" -DORLANBECK_TESTS=OFF -DORLANBECK_BENCH=OFF >/dev/null
  cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" --target orlanbeck pms_sim mgr_sim >/dev/null
fi
daemon=$build/src/orlanbeck
pms_sim=$build/tools/pms_sim
mgr_sim=$build/tools/mgr_sim

work=$(mktemp -d "${TMPDIR:-/tmp}/orlanbeck-demo.XXXXXX")
pids=()

cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  for p in "${pids[@]}"; do wait "$p" 2>/dev/null || true; done
  exec 7>&- 8>&- 2>/dev/null || true
  if [ "$keep" = 1 ]; then echo "(logs and databases kept in $work)"; else rm -rf "$work"; fi
}
trap cleanup EXIT

fail() {
  echo
  echo "DEMO FAILED: $*" >&2
  echo "--- last lines of the daemon's log ---" >&2
  tail -n 25 "$work"/daemon*.log >&2 2>/dev/null || true
  echo "--- last lines of the PMS simulator ---" >&2
  tail -n 10 "$work/pms.log" >&2 2>/dev/null || true
  exit 1
}

say() { printf '\n\033[1m==> %s\033[0m\n' "$*"; }
show() { printf '    %s\n' "$*"; }

# wait_for FILE PATTERN SECONDS: until a line of FILE matches (grep -E).
wait_for() {
  local file=$1 pattern=$2 limit=$3 i
  for ((i = 0; i < limit * 10; i++)); do
    grep -qE -- "$pattern" "$file" 2>/dev/null && return 0
    sleep 0.1
  done
  return 1
}

# wait_sql SQL EXPECTED SECONDS [DB]: until the PBX database (or DB) answers EXPECTED.
wait_sql() {
  local sql=$1 expected=$2 limit=$3 db=${4:-$work/pbx.db} i
  for ((i = 0; i < limit * 10; i++)); do
    [ "$(sqlite3 -cmd ".timeout 5000" "$db" "$sql" 2>/dev/null)" = "$expected" ] && return 0
    sleep 0.1
  done
  return 1
}

pbx() { sqlite3 -cmd ".timeout 5000" -separator ' | ' "$work/pbx.db" "$1"; }

# The PMS frames since the last call (at most $1 of them are shown).
pms_mark=0
pms_new() {
  local max=${1:-1000}
  tail -n +"$((pms_mark + 1))" "$work/pms.log" | grep -E ' (<-|->) ' | head -n "$max" |
    sed 's/^/    PMS /' || true
  pms_mark=$(wc -l <"$work/pms.log")
}

states() { sqlite3 -cmd ".timeout 5000" -separator ' | ' "$work/states-yes.db" "$1"; }

start_sims() {
  mkfifo "$work/pms.in" "$work/mgr.in"
  "$pms_sim" --port-file "$work/pms.port" --answer ok <"$work/pms.in" >"$work/pms.log" 2>&1 &
  pids+=($!)
  exec 7>"$work/pms.in"
  "$mgr_sim" --port-file "$work/mgr.port" <"$work/mgr.in" >"$work/mgr.log" 2>&1 &
  pids+=($!)
  exec 8>"$work/mgr.in"
  wait_for "$work/pms.port" . 10 || fail "the PMS simulator did not start"
  wait_for "$work/mgr.port" . 10 || fail "the Manager simulator did not start"
  pms_port=$(cat "$work/pms.port")
  mgr_port=$(cat "$work/mgr.port")
}

# write_config FILE MANAGER(yes|no)
write_config() {
  cat >"$1" <<CONF
; The corrections of [fixes], as the sample configuration sets them.
[fixes]
all = yes

[pms]
host = 127.0.0.1
port = $pms_port
interface = PB
statesfile = $work/states-$2.db

[logger]
log_level = 5

[pbx]
dbdriver = sqlite
database = $work/pbx.db

[services]
cdr_use_manager = $2
cdr_mgr_host = 127.0.0.1
cdr_mgr_port = $mgr_port
cdr_mgr_user = orlanbeck
cdr_mgr_password = demo
cdr_mgr_events = call,cdr
checkin = pbx:update extensions set guest='%name%', lang='%lang%', shared=%share% where exten='%exten%'
checkout = pbx:update extensions set guest='', lang='', shared=0, barred=0, dnd=0 where exten='%exten%'
bareon = pbx:update extensions set barred=1 where exten='%exten%'
bareoff = pbx:update extensions set barred=0 where exten='%exten%'
dndon = pbx:update extensions set dnd=1 where exten='%exten%'
dndoff = pbx:update extensions set dnd=0 where exten='%exten%'
wakeup_set = pbx:insert into wakeups (exten, wdate, wtime) values ('%exten%', '%date%', '%time%')
wakeup_clear = pbx:delete from wakeups where exten='%exten%'
billcalls = pbx:select calldate, calltime, dst, billsec, cost from cdr where src='%exten%' and posted=0
billmark = pbx:update cdr set posted=1 where src='%exten%' and calldate='%date%' and calltime='%time%'
billok = pbx:update cdr set billed='%seqno%' where src='%exten%' and billed=''
wakeup_result = pbx:select result, wdate, wtime from wakeup_results where exten='%exten%' and reported=0
wrmark = pbx:update wakeup_results set reported=1 where exten='%exten%'

[rooms]
room1 = 101
room2 = 102

[status]
listen = 127.0.0.1:$status_port
CONF
}

# A loopback port that nothing listens on, for the status endpoint.
free_port() {
  local port
  for _ in $(seq 50); do
    port=$((20000 + RANDOM % 30000))
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || { echo "$port"; return 0; }
  done
  return 1
}
status_port=$(free_port)

# http_get PATH: the answer of the status endpoint (headers and body).
http_get() {
  exec 3<>"/dev/tcp/127.0.0.1/$status_port" || return 1
  printf 'GET %s HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n' "$1" >&3
  tr -d '\r' <&3
  exec 3>&-
}

# start_daemon NAME MANAGER
start_daemon() {
  write_config "$work/$1.conf" "$2"
  "$daemon" -f -d -c "$work/$1.conf" >"$work/daemon-$1.log" 2>&1 &
  daemon_pid=$!
  pids+=($daemon_pid)
  daemon_log=$work/daemon-$1.log
}

stop_daemon() {
  kill "$daemon_pid" 2>/dev/null || true
  wait "$daemon_pid" 2>/dev/null || true
}

pms_send() { echo "$1" >&7; }

# step TITLE RECORD SQL EXPECTED WHAT SHOW_SQL: the PMS sends RECORD; the PBX
# database must answer SQL with EXPECTED (else WHAT did not reach the PBX).
step() {
  say "$1"
  pms_send "$2"
  wait_sql "$3" "$4" 10 || fail "$5 did not reach the PBX"
  pms_new
  show "PBX $6: $(pbx "select * from $6${7:+ where $7}")"
}

link_startup() {
  wait_for "$work/pms.log" '<- LS\|' 10 || fail "the daemon did not open the link (no LS)"
  wait_for "$work/pms.log" '-> LA\|' 10 || fail "the link start-up did not complete"
  wait_for "$daemon_log" 'Received Link active packet from PMS' 10 ||
    fail "the daemon did not take the PMS's LA"
}

sqlite3 -cmd ".timeout 5000" "$work/pbx.db" <<'SQL'
create table extensions (exten text primary key, guest text, lang text, shared int, barred int, dnd int);
insert into extensions values ('101','','',0,0,0), ('102','','',0,0,0);
create table wakeups (exten text, wdate text, wtime text);
create table wakeup_results (exten text, result int, wdate text, wtime text, reported int);
create table cdr (src text, calldate text, calltime text, dst text, billsec int, cost int,
                  posted int default 0, billed text default '');
SQL

start_sims
echo
echo "Simulated PMS on 127.0.0.1:$pms_port, simulated Asterisk Manager on 127.0.0.1:$mgr_port."
echo "Work folder: $work"
echo "Mode: [fixes] all = yes, as in the sample configuration etc/orlanbeck.conf"
echo "(without that section the daemon keeps its long-standing behaviours: see the README)."

# ---------------------------------------------------------------- act 1
say "Act 1: a call captured from the Asterisk Manager (services:cdr_use_manager = yes)"
start_daemon manager yes
link_startup
show "Link start-up, as the PMS saw it:"
pms_new 4
show "    ... nine LR records in all ..."
wait_for "$work/mgr.log" 'Authentication accepted' 10 || fail "the daemon did not log in to the Manager"
wait_for "$daemon_log" 'connected successfully' 10 || fail "the daemon did not see its Manager login accepted"
show "The daemon logged in to the Manager (Events: call,cdr)."
pms_new >/dev/null
echo "cdr 102 5550123 now 42" >&8
wait_for "$daemon_log" "matches '102'" 10 || fail "the Cdr event of room 102 was not cached"
show "Asterisk reported a 42-second call from room 102 to 5550123; it is cached:"
show "  $(states 'select src, dst, start, billsec from cdrcache')"
show "Waiting for the billing cycle (every 10 seconds) ..."
wait_for "$work/pms.log" '<- PS\|' 15 || fail "the cached call was not posted"
wait_for "$work/pms.log" '-> PA\|' 5 || fail "the PMS simulator did not answer the posting"
pms_new
wait_for "$daemon_log" 'OK query is' 5 || fail "the daemon did not handle the posting answer"
wait_sql "select count(*) from cdrcache" "0" 10 "$work/states-yes.db" ||
  fail "the accepted call was not removed from the cache"
show "Accepted by the PMS, the call has left the cache ($(states 'select count(*) from cdrcache') calls cached)."
stop_daemon

# ---------------------------------------------------------------- act 2
say "Act 2: a guest's stay (calls read from the PBX database: services:billcalls)"
pms_mark=$(wc -l <"$work/pms.log")
start_daemon stay no
link_startup
pms_new 2
show "    ... link active."

room="exten='101'"
step "Check-in: Mr O'Brien, room 101, English" "GI|RN101|GNO'Brien|GLEN|GSN|" \
  "select guest from extensions where $room" "O'Brien" "check-in" extensions "$room"
step "Phone bar on (class of service 0)" "RE|RN101|CS0|" \
  "select barred from extensions where $room" "1" "phone bar" extensions "$room"
step "Do not disturb on" "RE|RN101|DNY|" \
  "select dnd from extensions where $room" "1" "do-not-disturb" extensions "$room"
step "Wake-up booked for 06:30" "WR|RN101|DA261124|TI063000|" \
  "select count(*) from wakeups where $room" "1" "the wake-up booking" wakeups
show "(the name's apostrophe is escaped, and the date keeps its month: [fixes] escape and dates)"

say "A call from room 101, and the wake-up call's result, appear in the PBX database"
today=$(date +%Y-%m-%d)
sqlite3 -cmd ".timeout 5000" "$work/pbx.db" "insert into cdr (src, calldate, calltime, dst, billsec, cost) values ('101', '$today', '10:15:00', '004930123456', 125, 498);
                        insert into wakeup_results values ('101', 1, '$today', '06:30:00', 0);"
show "PBX cdr: $(pbx "select src, calldate, calltime, dst, billsec, cost from cdr")"
show "Waiting for the billing cycle (every 10 seconds) ..."
wait_for "$work/pms.log" '<- PS\|P#[0-9]{4}\|RN101\|' 15 || fail "the call was not posted"
wait_for "$work/pms.log" '-> PA\|' 5 || fail "the PMS simulator did not answer the posting"
wait_sql "select posted from cdr" "1" 10 || fail "the posted call was not marked"
wait_sql "select billed <> '' from cdr" "1" 10 || fail "the accepted posting was not billed"
wait_for "$work/pms.log" '<- WA\|RN101\|' 10 || fail "the wake-up result was not reported"
wait_sql "select reported from wakeup_results" "1" 10 || fail "the wake-up result was not marked"
pms_new
show "(the cost 498 goes out as TA498: [fixes] numbers)"
show "PBX cdr: $(pbx "select src, dst, billsec, posted, billed from cdr")  (posted, billed with the posting number)"
show "PBX wakeup_results: $(pbx "select * from wakeup_results")  (reported)"

step "Check-out" "GO|RN101|" "select guest || barred || dnd from extensions where $room" "00" \
  "check-out" extensions "$room"

say "What the status endpoint counted (http://127.0.0.1:$status_port/metrics)"
metrics=$(http_get /metrics) || fail "the status endpoint did not answer"
grep -E '^orlanbeck_(pms_link_up|pms_link_starts_total|postings_(sent|accepted)_total|calls_waiting|fias_records_received_total\{type="GI"\}) ' \
  <<<"$metrics" | sed 's/^/    /'
show "/health: $(http_get /health | tail -n 1)"

stop_daemon
echo
echo "The whole stay went through: every step reached the PMS and the PBX database."
exit 0
