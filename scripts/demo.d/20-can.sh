# Classic CAN: frames sent on port 0 of adapter 51000001 cross the virtual cable and are
# dumped on port 1. Both commands run in one process, which owns the virtual adapters.
step "veltrix can dump 51000001 1 --bitrate 500000 --count 3 + send 51000001 0 --bitrate 500000 123#DEADBEEF 18DAF110#0210C0 7DF#R"
"$SIM" "${ADAPTERS[@]}" -- "$CLI" can dump 51000001 1 --bitrate 500000 --count 3 --timeout 3000 \
  + send 51000001 0 --bitrate 500000 123#DEADBEEF 18DAF110#0210C0 7DF#R

# The same traffic decoded live through a sample DBC database.
DBC=../shared/corpus/dbc/motohawk.dbc
if [ -f "$DBC" ]; then
  step "veltrix can dump 51000001 1 --bitrate 500000 --dbc $DBC + send 51000001 0 --bitrate 500000 1F0#A5E0000000000000"
  "$SIM" "${ADAPTERS[@]}" -- "$CLI" can dump 51000001 1 --bitrate 500000 --count 1 --timeout 3000 \
    --dbc "$DBC" + send 51000001 0 --bitrate 500000 1F0#A5E0000000000000
fi
