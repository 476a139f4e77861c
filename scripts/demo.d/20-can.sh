# Classic CAN: frames sent on port 0 of adapter 51000001 cross the virtual cable and are
# dumped on port 1 as a candump log. Both commands run in one process, which owns the
# virtual adapters.
sim can dump 51000001 1 --bitrate 500000 --count 3 --timeout 3000 \
  + send 51000001 0 --bitrate 500000 123#DEADBEEF 18DAF110#0210C0 7DF#R

# The same traffic decoded live through a sample DBC database: the log stays on stdout,
# the signals go to stderr.
DBC=../shared/corpus/dbc/motohawk.dbc
if [ -f "$DBC" ]; then
  sim can dump 51000001 1 --bitrate 500000 --count 1 --timeout 3000 --dbc "$DBC" \
    + send 51000001 0 --bitrate 500000 1F0#A5E0000000000000
  # A frame from signal values, and a log decoded without any adapter.
  run "$CLI" dbc encode "$DBC" ExampleMessage Temperature=247.44 AverageRadius=1.8 Enable=1
  LOG=$(mktemp --suffix=.log)
  sim can log 51000001 1 --bitrate 500000 "$LOG" --count 2 --timeout 3000 \
    + gen 51000001 0 --bitrate 500000 --count 2 --gap 10 --id 1F0 --data A5E0000000000000
  run "$CLI" dbc decode "$DBC" "$LOG"
  rm -f "$LOG"
fi
