// The veltrix CLI as users run it: real processes, under veltrix-sim where an adapter is
// needed, with exact output and exit status. Frame times are wall-clock and so are matched
// by shape only; everything else is compared as written.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

const std::string kCli = VELTRIX_CLI;
const std::string kSim = VELTRIX_SIM;
const std::string kCorpus = VELTRIX_CORPUS_DIR;
const std::string kMotohawk = kCorpus + "/dbc/motohawk.dbc";

struct Result {
  int status = -1;
  std::string out, err;
};

std::string quote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::string temp_path(const std::string& name) { return testing::TempDir() + "/cli_" + name; }

void write_file(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// Runs argv (through veltrix-sim when sim is set) with input on stdin.
Result run(const std::vector<std::string>& argv, bool sim = false, const std::string& input = "") {
  const std::string in = temp_path("stdin"), out = temp_path("stdout"), err = temp_path("stderr");
  write_file(in, input);
  // A classic adapter and a CAN FD one.
  std::string cmd = sim ? quote(kSim) + " --adapter 51000001@1 --adapter 53000001@2 --" : "";
  for (const std::string& a : argv) cmd += " " + quote(a);
  cmd += " <" + quote(in) + " >" + quote(out) + " 2>" + quote(err);
  const int raw = std::system(cmd.c_str());
  Result r;
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
  r.out = slurp(out);
  r.err = slurp(err);
  return r;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> v;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) v.push_back(l);
  return v;
}

// "(1795409783.192493) vx51000001-1 " prefix with wall-clock time in the last year or so,
// from port 1 of either adapter.
const std::regex kLogPrefix(R"(^\((17|18|19)\d{8}\.\d{6}\) vx5[13]000001-1 )");

// The frame words of candump log lines, checking each line's prefix.
std::vector<std::string> logged_frames(const std::string& text) {
  std::vector<std::string> frames;
  for (const std::string& l : lines(text)) {
    EXPECT_TRUE(std::regex_search(l, kLogPrefix)) << l;
    frames.push_back(l.substr(l.rfind(' ') + 1));
  }
  return frames;
}

std::vector<std::string> can_cmd(std::vector<std::string> receiver,
                                 std::vector<std::string> sender) {
  std::vector<std::string> argv = {kCli, "can"};
  argv.insert(argv.end(), receiver.begin(), receiver.end());
  argv.push_back("+");
  argv.insert(argv.end(), sender.begin(), sender.end());
  return argv;
}

TEST(CliCan, DumpWritesCandumpLogLinesOfWhatCrossesTheCable) {
  Result r = run(
      can_cmd({"dump", "51000001", "1", "--bitrate", "500000", "--count", "4", "--timeout", "3000"},
              {"send", "51000001", "0", "--bitrate", "500000", "123#DEADBEEF", "18DAF110#0210C0",
               "7DF#R", "7DF#R3"}),
      true);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(logged_frames(r.out),
            (std::vector<std::string>{"123#DEADBEEF", "18DAF110#0210C0", "7DF#R", "7DF#R3"}));
}

// The refused frames go out between the passed ones, so a filter that let one through
// would show it within the count.
TEST(CliCan, FiltersPassOnlyMatchingIdsOfTheirFormat) {
  Result r =
      run(can_cmd({"dump", "51000001", "1", "--bitrate", "500000", "--count", "3", "--timeout",
                   "5000", "--filter", "120:7F0", "--filter", "18DAF100:1FFFFF00"},
                  {"send", "51000001", "0", "--bitrate", "500000", "123#01", "223#02",
                   "00000123#03", "18DAF1F1#04", "12F#05"}),
          true);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(logged_frames(r.out), (std::vector<std::string>{"123#01", "18DAF1F1#04", "12F#05"}));
}

TEST(CliCan, DecodedSignalsGoToStderrSoTheLogStaysMachineReadable) {
  Result r = run(
      can_cmd({"dump", "51000001", "1", "--bitrate", "500000", "--count", "2", "--timeout", "3000",
               "--dbc", kMotohawk},
              {"send", "51000001", "0", "--bitrate", "500000", "1F0#A5E0000000000000", "123#00"}),
      true);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(logged_frames(r.out), (std::vector<std::string>{"1F0#A5E0000000000000", "123#00"}));
  EXPECT_EQ(r.err,
            "  ExampleMessage: Temperature=247.44 degK AverageRadius=1.8 m Enable=Enabled\n"
            "  (no message with id 123)\n");
}

TEST(CliCan, LogFileIsReadByReplayAndByTheCanTools) {
  const std::string log = temp_path("recorded.log");
  Result rec = run(can_cmd({"log", "51000001", "1", "--bitrate", "500000", log, "--count", "3",
                            "--timeout", "3000"},
                           {"send", "51000001", "0", "--bitrate", "500000", "123#DEADBEEF",
                            "18DAF110#0210C0", "7DF#R2"}),
                   true);
  ASSERT_EQ(rec.status, 0) << rec.err;
  EXPECT_EQ(rec.out, "");
  const std::string text = slurp(log);
  EXPECT_EQ(logged_frames(text),
            (std::vector<std::string>{"123#DEADBEEF", "18DAF110#0210C0", "7DF#R2"}));

  // python-can reads it as a candump log.
  Result py =
      run({"/usr/bin/python3", "-c",
           "import can\n"
           "for m in can.LogReader('" +
               log +
               "'):\n"
               "    print(hex(m.arbitration_id), m.is_extended_id, m.is_remote_frame, m.dlc,"
               " m.data.hex(), m.channel)\n"});
  EXPECT_EQ(py.status, 0) << py.err;
  EXPECT_EQ(py.out,
            "0x123 False False 4 deadbeef vx51000001-1\n"
            "0x18daf110 True False 3 0210c0 vx51000001-1\n"
            "0x7df False True 2  vx51000001-1\n");

  // can-utils' log2asc reads it, mapping the adapter's interface name to channel 1.
  Result asc = run({"log2asc", "-I", log, "vx51000001-1"});
  EXPECT_EQ(asc.status, 0) << asc.err;
  std::vector<std::string> frames;
  const std::regex asc_time(R"(^ +\d+\.\d{6} )");
  for (const std::string& l : lines(asc.out))
    if (std::regex_search(l, asc_time)) frames.push_back(std::regex_replace(l, asc_time, ""));
  EXPECT_EQ(frames, (std::vector<std::string>{"1  123             Rx   d 4 DE AD BE EF",
                                              "1  18DAF110x       Rx   d 3 02 10 C0",
                                              "1  7DF             Rx   r 2"}));

  // Replayed onto the cable, the same frames arrive again.
  Result again = run(
      can_cmd({"dump", "51000001", "1", "--bitrate", "500000", "--count", "3", "--timeout", "3000"},
              {"replay", "51000001", "0", "--bitrate", "500000", log}),
      true);
  EXPECT_EQ(again.status, 0) << again.err;
  EXPECT_EQ(logged_frames(again.out),
            (std::vector<std::string>{"123#DEADBEEF", "18DAF110#0210C0", "7DF#R2"}));
}

TEST(CliCan, GenSendsWhatItPrints) {
  Result r = run(
      can_cmd({"dump", "51000001", "1", "--bitrate", "500000", "--count", "4", "--timeout", "3000"},
              {"gen", "51000001", "0", "--bitrate", "500000", "--count", "4", "--gap", "0",
               "--seed", "7", "--id", "1A5", "--data", "i", "--len", "2", "--verbose"}),
      true);
  EXPECT_EQ(r.status, 0) << r.err;
  // The dump and the generator share stdout: log lines start with the time.
  std::vector<std::string> printed;
  std::string logged;
  for (const std::string& l : lines(r.out)) {
    if (!l.empty() && l[0] == '(')
      logged += l + "\n";
    else
      printed.push_back(l);
  }
  EXPECT_EQ(printed,
            (std::vector<std::string>{"seed 7", "1A5#0000", "1A5#0100", "1A5#0200", "1A5#0300"}));
  EXPECT_EQ(logged_frames(logged),
            (std::vector<std::string>{"1A5#0000", "1A5#0100", "1A5#0200", "1A5#0300"}));
}

struct Refusal {
  const char* name;
  std::vector<std::string> args;  // after "veltrix"
  int status;
  std::string err;
};

class CliRefusals : public ::testing::TestWithParam<Refusal> {};

TEST_P(CliRefusals, SaySoInOneSentence) {
  std::vector<std::string> argv = {kCli};
  argv.insert(argv.end(), GetParam().args.begin(), GetParam().args.end());
  Result r = run(argv, true);
  EXPECT_EQ(r.status, GetParam().status);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, GetParam().err);
}

std::string bad_replay_file() {
  const std::string p = temp_path("bad_replay.log");
  write_file(p, "(1700000000.000000) can0 123#01\n\n(1700000000.000100) can0 123#0G\n");
  return p;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, CliRefusals,
    ::testing::Values(
        Refusal{"ShortId",
                {"can", "send", "51000001", "0", "--bitrate", "500000", "12#00"},
                2,
                "veltrix can: frame '12#00': the identifier '12' is not 3 or 8 hex digits "
                "('veltrix can --help' shows the usage).\n"},
        Refusal{"FdOnClassicPort",
                {"can", "send", "51000001", "0", "--bitrate", "500000", "123##1AA"},
                2,
                "veltrix can: frame '123##1AA' needs a CAN FD adapter (53xxxxxx or 54xxxxxx); "
                "51000001 has classic ports ('veltrix can --help' shows the usage).\n"},
        Refusal{"NoBitrate",
                {"can", "dump", "51000001", "0"},
                2,
                "veltrix can: dump needs --bitrate ('veltrix can --help' shows the usage).\n"},
        Refusal{"BadFilter",
                {"can", "dump", "51000001", "0", "--bitrate", "500000", "--filter", "12:7FF"},
                2,
                "veltrix can: '12:7FF' is not ID:MASK (3 or 8 hex digits, then a hex mask) for "
                "--filter ('veltrix can --help' shows the usage).\n"},
        Refusal{"MissingAdapter",
                {"can", "send", "5100000F", "0", "--bitrate", "500000", "123#00"},
                1,
                "veltrix can: adapter 5100000F was not found or cannot be opened ('veltrix scan' "
                "lists the attached adapters).\n"},
        Refusal{"BadReplayLine",
                {"can", "replay", "51000001", "0", "--bitrate", "500000", bad_replay_file()},
                1,
                "veltrix can: " + bad_replay_file() + " line 3: the data '0G' is not hex bytes.\n"},
        Refusal{"UnknownCommand",
                {"frobnicate"},
                2,
                "veltrix: unknown command 'frobnicate' ('veltrix --help' lists the commands).\n"}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- CAN FD adapters ------------------------------------------------------------------

const std::string kBytes64 =
    "000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F"
    "202122232425262728292A2B2C2D2E2F303132333435363738393A3B3C3D3E3F";

std::vector<std::string> fd_dump(const std::string& count) {
  return {"dump",    "53000001", "1",   "--bitrate", "500000", "--data-bitrate",
          "2000000", "--count",  count, "--timeout", "3000"};
}

std::vector<std::string> fd_sender(const std::string& command, std::vector<std::string> rest) {
  std::vector<std::string> argv = {command,  "53000001",       "0",      "--bitrate",
                                   "500000", "--data-bitrate", "2000000"};
  argv.insert(argv.end(), rest.begin(), rest.end());
  return argv;
}

TEST(CliCanFd, DumpPrintsFdAndClassicFramesAsTheyCrossTheCable) {
  // A frame above 8 bytes goes out with the bit rate switch even when its flags lack it.
  Result r = run(can_cmd(fd_dump("5"), fd_sender("send", {"123##1" + kBytes64,
                                                          "18DAF110##0" + kBytes64.substr(0, 24),
                                                          "456##0AABB", "123#DEADBEEF", "7DF#R2"})),
                 true);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(logged_frames(r.out),
            (std::vector<std::string>{"123##1" + kBytes64, "18DAF110##1" + kBytes64.substr(0, 24),
                                      "456##0AABB", "123#DEADBEEF", "7DF#R2"}));
}

TEST(CliCanFd, LoggedFdFramesReplayAsRecorded) {
  const std::string log = temp_path("fd.log");
  Result rec = run(can_cmd({"log", "53000001", "1", "--bitrate", "500000", "--data-bitrate",
                            "2000000", log, "--count", "3", "--timeout", "3000"},
                           fd_sender("send", {"0ABCDEF0##1" + kBytes64.substr(0, 32), "321#01",
                                              "7FF##1" + kBytes64})),
                   true);
  ASSERT_EQ(rec.status, 0) << rec.err;
  const std::vector<std::string> sent = {"0ABCDEF0##1" + kBytes64.substr(0, 32), "321#01",
                                         "7FF##1" + kBytes64};
  EXPECT_EQ(logged_frames(slurp(log)), sent);

  Result again = run(can_cmd(fd_dump("3"), fd_sender("replay", {log, "--no-timing"})), true);
  EXPECT_EQ(again.status, 0) << again.err;
  EXPECT_EQ(logged_frames(again.out), sent);
}

TEST(CliCanFd, GenFdSendsWhatItPrints) {
  Result r = run(can_cmd(fd_dump("3"), fd_sender("gen", {"--fd", "--count", "3", "--gap", "0",
                                                         "--id", "1A5", "--len", "12", "--data",
                                                         "i", "--seed", "1", "--verbose"})),
                 true);
  EXPECT_EQ(r.status, 0) << r.err;
  std::vector<std::string> printed;
  std::string logged;
  for (const std::string& l : lines(r.out)) {
    if (!l.empty() && l[0] == '(')
      logged += l + "\n";
    else
      printed.push_back(l);
  }
  const std::vector<std::string> frames = {"1A5##1000000000000000000000000",
                                           "1A5##1010000000000000000000000",
                                           "1A5##1020000000000000000000000"};
  std::vector<std::string> expected = {"seed 1"};
  expected.insert(expected.end(), frames.begin(), frames.end());
  EXPECT_EQ(printed, expected);
  EXPECT_EQ(logged_frames(logged), frames);
}

// A schedule file runs on the adapter by itself: frames of period 0 go out once at the
// start, the periodic one again and again.
TEST(CliCanFd, ScheduleFileRunsOnBothAdapterKinds) {
  const std::string fd_file = temp_path("fd.schedule");
  write_file(fd_file, "# period_ms frame\n\n0 123##1" + kBytes64.substr(0, 32) + "\n");
  Result fd = run(can_cmd(fd_dump("1"), fd_sender("schedule", {fd_file})), true);
  EXPECT_EQ(fd.status, 0) << fd.err;
  EXPECT_EQ(logged_frames(fd.out), (std::vector<std::string>{"123##1" + kBytes64.substr(0, 32)}));

  const std::string periodic = temp_path("periodic.schedule");
  write_file(periodic, "5 18DAF110#0102\r\n");
  Result classic = run(
      can_cmd({"dump", "51000001", "1", "--bitrate", "250000", "--count", "3", "--timeout", "3000"},
              {"schedule", "51000001", "0", "--bitrate", "250000", periodic}),
      true);
  EXPECT_EQ(classic.status, 0) << classic.err;
  EXPECT_EQ(logged_frames(classic.out),
            (std::vector<std::string>{"18DAF110#0102", "18DAF110#0102", "18DAF110#0102"}));
}

std::string schedule_file(const std::string& name, const std::string& text) {
  const std::string p = temp_path(name);
  write_file(p, text);
  return p;
}

std::vector<std::string> schedule_args(const std::string& serial, const std::string& file) {
  return {"can", "schedule", serial, "0", "--bitrate", "500000", file};
}

INSTANTIATE_TEST_SUITE_P(
    CanFd, CliRefusals,
    ::testing::Values(
        Refusal{"FdLengthThirteen",
                {"can", "send", "53000001", "0", "--bitrate", "500000",
                 "123##1" + kBytes64.substr(0, 26)},
                2,
                "veltrix can: frame '123##1" + kBytes64.substr(0, 26) +
                    "': a CAN FD frame carries 0 to 8, 12, 16, 20, 24, 32, 48 or 64 bytes, not "
                    "13 ('veltrix can --help' shows the usage).\n"},
        Refusal{"DataBitrateOnClassic",
                {"can", "send", "51000001", "0", "--bitrate", "500000", "--data-bitrate", "2000000",
                 "123#00"},
                2,
                "veltrix can: --data-bitrate needs a CAN FD adapter (53xxxxxx or 54xxxxxx); "
                "51000001 has classic ports ('veltrix can --help' shows the usage).\n"},
        Refusal{"GenFdOnClassic",
                {"can", "gen", "51000001", "0", "--bitrate", "500000", "--fd"},
                2,
                "veltrix can: --fd needs a CAN FD adapter (53xxxxxx or 54xxxxxx); 51000001 has "
                "classic ports ('veltrix can --help' shows the usage).\n"},
        Refusal{"GenLongClassic",
                {"can", "gen", "53000001", "0", "--bitrate", "500000", "--len", "12"},
                2,
                "veltrix can: a classic frame has at most 8 bytes, not 12; add --fd for a CAN "
                "FD frame ('veltrix can --help' shows the usage).\n"},
        Refusal{"DataRateNotInTable",
                {"can", "send", "53000001", "0", "--bitrate", "500000", "--data-bitrate", "2500000",
                 "123#00"},
                1,
                "veltrix can: adapter 53000001 has no timing for 500000 bit/s with 2500000 "
                "bit/s data.\n"},
        Refusal{"ScheduleWithoutFile",
                {"can", "schedule", "53000001", "0", "--bitrate", "500000"},
                2,
                "veltrix can: schedule needs exactly one FILE ('veltrix can --help' shows the "
                "usage).\n"},
        Refusal{"ScheduleFileMissing", schedule_args("53000001", "/nonexistent/x.schedule"), 1,
                "veltrix can: cannot open /nonexistent/x.schedule: No such file or directory.\n"},
        Refusal{"ScheduleBadPeriod",
                schedule_args("53000001", schedule_file("bad_period", "0 123#01\n-5 123#02\n")), 1,
                "veltrix can: " + temp_path("bad_period") +
                    " line 2: the period '-5' is not a time in ms (0 to 4294967295).\n"},
        Refusal{"ScheduleFdOnClassic",
                schedule_args("51000001", schedule_file("fd_on_classic", "# x\n10 123##1AA\n")), 1,
                "veltrix can: " + temp_path("fd_on_classic") +
                    " line 2: a CAN FD frame needs a CAN FD adapter.\n"},
        Refusal{"ScheduleTwoFrames",
                schedule_args("53000001", schedule_file("two_frames", "10 123#01 123#02\n")), 1,
                "veltrix can: " + temp_path("two_frames") +
                    " line 1: a line holds one period and one frame.\n"},
        Refusal{"SchedulePeriodOnly",
                schedule_args("53000001", schedule_file("period_only", "10   \n")), 1,
                "veltrix can: " + temp_path("period_only") +
                    " line 1: the period has no frame after it.\n"},
        Refusal{"ScheduleBinary",
                schedule_args("53000001",
                              schedule_file("binary", std::string("0 123#01\n\x01\xFF", 11))),
                1,
                "veltrix can: " + temp_path("binary") +
                    " line 2: binary data (byte 0x01), not a schedule.\n"},
        Refusal{"ScheduleEmpty", schedule_args("53000001", schedule_file("empty", "# nothing\n\n")),
                1, "veltrix can: " + temp_path("empty") + " line 3: the file holds no frame.\n"},
        Refusal{"ReplayFdOnClassic",
                {"can", "replay", "51000001", "0", "--bitrate", "500000", "--no-timing",
                 schedule_file("fd_replay.log", "(1700000000.000000) can0 123##1AABB\n")},
                1,
                "veltrix can: " + temp_path("fd_replay.log") +
                    " line 1: a CAN FD frame needs a CAN FD adapter.\n"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(CliDbc, DecodeReadsBothCandumpFormsAndReportsShortFrames) {
  const std::string input =
      "(1700000000.000001) can0 1F0#A5E0000000000000\n"
      "  can0  1F0   [8]  A5 E0 00 00 00 00 00 00\n"
      "1F0#A5E0\n"
      "7DF#R\n"
      "garbage here\n";
  Result r = run({kCli, "dbc", "decode", kMotohawk}, false, input);
  EXPECT_EQ(r.status, 1);
  const std::string decoded =
      "  ExampleMessage: Temperature=247.44 degK AverageRadius=1.8 m Enable=Enabled\n";
  EXPECT_EQ(r.out, "(1700000000.000001) can0 1F0#A5E0000000000000\n" + decoded +
                       "  can0  1F0   [8]  A5 E0 00 00 00 00 00 00\n" + decoded +
                       "1F0#A5E0\n"
                       "  ExampleMessage: the frame has 2 data bytes, the message needs 8\n"
                       "7DF#R\n");
  EXPECT_EQ(r.err,
            "veltrix dbc: stdin line 5: a screen line needs an identifier and a [length].\n"
            "veltrix dbc: 2 of 5 lines could not be decoded.\n");
}

TEST(CliDbc, DecodeFollowsExtendedMultiplexing) {
  // Message Extended: S0 switches S1 (S0 = 0) and S5 (S0 = 1); S1 switches S2, S3 (S1 = 0)
  // and S4 (S1 = 2); S6 switches S7 (1) and S8 (2).
  Result r = run({kCli, "dbc", "decode", kCorpus + "/dbc/multiplex_2.dbc"}, false,
                 "0C00FEFE#0000000001000000\n0C00FEFE#2000000002000000\n"
                 "0C00FEFE#2100000000000000\n");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "0C00FEFE#0000000001000000\n  Extended: S7=0 S6=1 S3=0 S2=0 S1=0 S0=0\n"
            "0C00FEFE#2000000002000000\n  Extended: S8=0 S6=2 S4=0 S1=2 S0=0\n"
            "0C00FEFE#2100000000000000\n  Extended: S6=0 S5=2 S0=1\n");
}

TEST(CliDbc, EncodePrintsTheFrameCansendTakes) {
  Result r = run({kCli, "dbc", "encode", kMotohawk, "ExampleMessage", "Temperature=247.44",
                  "AverageRadius=1.8", "Enable=1"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "1F0#A5E0000000000000\n");
  Result bad = run({kCli, "dbc", "encode", kMotohawk, "ExampleMessage", "Nope=1"});
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.err,
            "veltrix dbc: setting ExampleMessage.Nope failed: -5 (no such message or signal).\n");
}

TEST(CliDbc, ShowPrintsACycleTimeOnlyWhereTheFileGivesOne) {
  Result r = run({kCli, "dbc", "show", kCorpus + "/dbc/foobar.dbc"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("00012330 Foo  dlc 8  sender FOO\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("00012331 Fum  dlc 5  sender FOO  cycle 1 ms\n"), std::string::npos);
}

struct BadFile {
  const char* name;
  const char* command;  // dbc or ldf
  std::string content;
  std::string why;  // after "veltrix CMD: PATH "
};

class CliBadFiles : public ::testing::TestWithParam<BadFile> {};

TEST_P(CliBadFiles, FailNamingFileAndLine) {
  const std::string path = temp_path(std::string(GetParam().name) + ".txt");
  write_file(path, GetParam().content);
  Result r = run({kCli, GetParam().command, "show", path});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err,
            "veltrix " + std::string(GetParam().command) + ": " + path + " " + GetParam().why);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, CliBadFiles,
    ::testing::Values(BadFile{"EmptyDbc", "dbc", "", "line 1: the file is empty, not DBC text.\n"},
                      BadFile{"BinaryDbc", "dbc",
                              std::string("VERSION \"\"\n\nBO_ 1 A: 8 X\n") + "\x01",
                              "line 4: binary data (byte 0x01), not DBC text.\n"},
                      BadFile{"ProseDbc", "dbc", "hello\nworld\n",
                              "line 1: no DBC statement in the file (VERSION, BU_, BO_).\n"},
                      BadFile{"MissingSender", "dbc", "VERSION \"\"\n\nBO_ 100 Msg: 8\n",
                              "line 3: the BO_ statement lacks a part it needs.\n"},
                      BadFile{"EmptyLdf", "ldf", "", "line 1: the file is empty, not LDF text.\n"},
                      BadFile{"BinaryLdf", "ldf", std::string("LIN_description_file;\n\0", 23),
                              "line 2: binary data (byte 0x00), not LDF text.\n"},
                      BadFile{"HeaderlessLdf", "ldf", "/* a\n comment */\n  Nodes { }\n",
                              "line 3: an LDF file begins with \"LIN_description_file;\".\n"},
                      BadFile{"OnlyCommentsLdf", "ldf", "// nothing\n",
                              "line 2: the file ends before \"LIN_description_file;\".\n"}),
    [](const auto& info) { return std::string(info.param.name); });

// veltrix uds on a CAN FD adapter's port against the virtual diagnostic ECU.
TEST(CliUds, FdOptionsAgainstTheVirtualEcu) {
  const std::string vin = "62 F1 90 56 4C 54 58 30 53 49 4D 55 4C 41 54 45 44 30 30 31\n";
  const struct {
    std::string serial;
    std::vector<std::string> options;
    int status;
    std::string out, err;
  } cases[] = {
      {"53000002", {"--fd"}, 0, vin, ""},
      {"53000002", {"--fd", "--frame-length", "12", "--data-bitrate", "1000000"}, 0, vin, ""},
      {"53000002", {}, 0, vin, ""},  // an FD port carrying classic frames
      {"53000002", {"--fd", "--frame-length", "13"}, 2, "", "veltrix uds: bad argument '13'\n"},
      {"31000001", {"--fd"}, 1, "", "veltrix uds: adapter 31000001 has no CAN FD ports\n"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> argv{"env",    "VELTRIX_SIM_ECU=1",
                                  kSim,     "--adapter",
                                  c.serial, "--",
                                  kCli,     "uds",
                                  c.serial, "0",
                                  "--tx",   "7E0",
                                  "--rx",   "7E8"};
    argv.insert(argv.end(), c.options.begin(), c.options.end());
    for (const char* b : {"22", "F1", "90"}) argv.push_back(b);
    const Result r = run(argv);
    EXPECT_EQ(r.status, c.status) << c.serial << " " << r.err;
    EXPECT_EQ(r.out, c.out) << c.serial;
    EXPECT_EQ(r.err, c.err) << c.serial;
  }
}

TEST(CliHelp, EveryCommandDescribesItselfOnStdout) {
  Result top = run({kCli, "--help"});
  ASSERT_EQ(top.status, 0);
  const std::string list = lines(top.out).at(1);
  ASSERT_EQ(list.rfind("commands: ", 0), 0u) << top.out;
  std::istringstream names(list.substr(10));
  int seen = 0;
  for (std::string name; names >> name; ++seen) {
    Result r = run({kCli, name, "--help"});
    EXPECT_EQ(r.status, 0) << name;
    EXPECT_EQ(r.out.rfind("usage: veltrix " + name, 0), 0u) << name << ": " << r.out;
    EXPECT_EQ(r.err, "") << name;
  }
  EXPECT_GE(seen, 6);
}

// Asking for help anywhere among real arguments still answers on stdout without opening the
// adapter; a wrong call keeps the usage on stderr with status 2 so scripts see the mistake.
TEST(CliHelp, PeripheralAndDiagnosticCommandsKeepUsageErrorsOnStderr) {
  const struct {
    std::vector<std::string> args;
    std::string name;
  } cases[] = {
      {{"i2c", "51000001", "0", "get", "50", "--help"}, "i2c"},
      {{"spi", "51000001", "0", "flash", "-h"}, "spi"},
      {{"uart", "51000001", "0", "--baud", "9600", "--help"}, "uart"},
      {{"gpio", "51000001", "read", "FF", "--help"}, "gpio"},
      {{"pwm", "51000001", "set", "0", "--help"}, "pwm"},
      {{"adc", "51000001", "stream", "--help"}, "adc"},
      {{"uds", "51000001", "0", "--tx", "7E0", "-h"}, "uds"},
      {{"isotp", "send", "51000001", "0", "--help"}, "isotp"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> argv = {kCli};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    Result help = run(argv);
    EXPECT_EQ(help.status, 0) << c.name;
    EXPECT_EQ(help.out.rfind("usage: veltrix " + c.name, 0), 0u) << c.name << ": " << help.out;
    EXPECT_EQ(help.err, "") << c.name;

    Result wrong = run({kCli, c.name});
    EXPECT_EQ(wrong.status, 2) << c.name;
    EXPECT_EQ(wrong.out, "") << c.name;
    EXPECT_EQ(wrong.err.rfind("usage: veltrix " + c.name, 0), 0u) << c.name << ": " << wrong.err;
  }
}

// ---- UART, GPIO, PWM and ADC ----------------------------------------------------------

const std::string kGpioUsage =
    "usage: veltrix gpio SERIAL in MASK [up|down|none]\n"
    "       veltrix gpio SERIAL out MASK [od]\n"
    "       veltrix gpio SERIAL write MASK VALUE\n"
    "       veltrix gpio SERIAL read MASK\n"
    "       veltrix gpio SERIAL pulses MASK WIDTH_US PERIOD_US COUNT\n";
const std::string kPwmUsage =
    "usage: veltrix pwm SERIAL set CH FREQ_HZ DUTY_PERCENT [--run US]\n"
    "       veltrix pwm SERIAL stop CH\n"
    "       veltrix pwm SERIAL capture CAP\n";
const std::string kAdcUsage =
    "usage: veltrix adc SERIAL read MASK RATE N\n"
    "       veltrix adc SERIAL stream --rate N --seconds S [--mask M] [--frame F]\n"
    "                                [--out FILE.csv] [--plot FILE.png]\n";
const std::string kUartUsage = "usage: veltrix uart SERIAL CH [--baud N] [--wait MS] [TEXT...]\n";

struct PeriphCase {
  const char* name;
  std::vector<std::string> env;  // VAR=VALUE settings of the virtual adapters
  std::vector<std::string> args;
  int status;
  std::string out, err;
};

// A classic adapter (no PWM outputs) and a CAN FD one, as in run().
Result run_periph(const std::vector<std::string>& env, const std::vector<std::string>& args) {
  std::vector<std::string> argv = {"env"};
  argv.insert(argv.end(), env.begin(), env.end());
  argv.insert(argv.end(), {kSim, "--adapter", "51000001@1", "--adapter", "53000001@2", "--", kCli});
  argv.insert(argv.end(), args.begin(), args.end());
  return run(argv);
}

class CliPeriph : public ::testing::TestWithParam<PeriphCase> {};

TEST_P(CliPeriph, ExactOutputAndStatus) {
  const PeriphCase& c = GetParam();
  const Result r = run_periph(c.env, c.args);
  EXPECT_EQ(r.status, c.status) << r.err;
  EXPECT_EQ(r.out, c.out);
  EXPECT_EQ(r.err, c.err);
}

const char* kLoopback = "VELTRIX_SIM_UART_LOOPBACK=1";

INSTANTIATE_TEST_SUITE_P(
    Commands, CliPeriph,
    ::testing::Values(
        PeriphCase{"UartLineComesBackOnALoopback",
                   {kLoopback},
                   {"uart", "51000001", "0", "--wait", "300", "hello", "world"},
                   0,
                   "hello world\n",
                   ""},
        PeriphCase{"UartBaudNotANumber",
                   {},
                   {"uart", "51000001", "0", "--baud", "fast"},
                   2,
                   "",
                   kUartUsage},
        PeriphCase{"UartChannelBeyondAByte", {}, {"uart", "51000001", "256"}, 2, "", kUartUsage},
        PeriphCase{"UartAdapterNotThere",
                   {},
                   {"uart", "5100000F", "0", "hi"},
                   1,
                   "",
                   "veltrix uart: adapter 5100000F not found or cannot be opened\n"},
        PeriphCase{"UartAdapterUnpluggedByTheWrite",
                   {"VELTRIX_SIM_UNPLUG=51000001:A01"},
                   {"uart", "51000001", "1", "hi"},
                   1,
                   "",
                   "veltrix uart: UART_WriteBytes failed (-4)\n"},
        PeriphCase{"GpioReadPrintsTheLevels",
                   {},
                   {"gpio", "51000001", "read", "F"},
                   0,
                   "0x00000000\n",
                   ""},
        PeriphCase{"GpioOutputsWrittenAndPulsed",
                   {},
                   {"gpio", "51000001", "pulses", "1", "10", "100", "5"},
                   0,
                   "",
                   ""},
        PeriphCase{
            "GpioUnknownPull", {}, {"gpio", "51000001", "in", "F", "sideways"}, 2, "", kGpioUsage},
        PeriphCase{
            "GpioWriteWithoutValue", {}, {"gpio", "51000001", "write", "F"}, 2, "", kGpioUsage},
        PeriphCase{"GpioMaskNotHex", {}, {"gpio", "51000001", "read", "XYZ"}, 2, "", kGpioUsage},
        PeriphCase{"GpioAdapterNotThere",
                   {},
                   {"gpio", "5100000F", "read", "F"},
                   1,
                   "",
                   "veltrix gpio: adapter 5100000F not found or cannot be opened\n"},
        PeriphCase{"GpioAdapterUnpluggedByTheRead",
                   {"VELTRIX_SIM_UNPLUG=51000001:604"},
                   {"gpio", "51000001", "read", "F"},
                   1,
                   "",
                   "veltrix gpio: read failed (-4)\n"},
        PeriphCase{"PwmSetReportsTheFrequencyItGot",
                   {},
                   {"pwm", "53000001", "set", "1", "33333", "50", "--run", "1000"},
                   0,
                   "channel 1: 33333.333333 Hz (asked 33333.000000, error +0.0010 %), duty 50.00 "
                   "%\n",
                   ""},
        PeriphCase{"PwmCaptureWithoutEdges",
                   {},
                   {"pwm", "53000001", "capture", "0"},
                   0,
                   "capture 0: no edges\n",
                   ""},
        PeriphCase{"PwmModelWithoutOutputs",
                   {},
                   {"pwm", "51000001", "set", "0", "1000", "25"},
                   1,
                   "",
                   "veltrix pwm: PWM2_Init failed (-5)\n"},
        PeriphCase{"PwmStopOnAModelWithoutOutputs",
                   {},
                   {"pwm", "51000001", "stop", "0"},
                   1,
                   "",
                   "veltrix pwm: PWM2_Stop failed (-5)\n"},
        PeriphCase{"PwmDutyNotANumber",
                   {},
                   {"pwm", "53000001", "set", "0", "1000", "half"},
                   2,
                   "",
                   kPwmUsage},
        PeriphCase{"PwmAdapterNotThere",
                   {},
                   {"pwm", "5300000F", "stop", "0"},
                   1,
                   "",
                   "veltrix pwm: adapter 5300000F not found or cannot be opened\n"},
        PeriphCase{"PwmAdapterUnpluggedBySetUp",
                   {"VELTRIX_SIM_UNPLUG=53000001:800"},
                   {"pwm", "53000001", "set", "0", "1000", "25"},
                   1,
                   "",
                   "veltrix pwm: PWM2_Init failed (-4)\n"},
        PeriphCase{"AdcReadPrintsOneRowPerSet",
                   {},
                   {"adc", "51000001", "read", "05", "1000", "3"},
                   0,
                   "sample,time_s,in0,in2\n"
                   "0,0.0000000,0,8192\n"
                   "1,0.0010000,1,8193\n"
                   "2,0.0020000,2,8194\n",
                   ""},
        PeriphCase{"AdcReadWithoutInputs",
                   {},
                   {"adc", "51000001", "read", "00", "1000", "3"},
                   2,
                   "",
                   kAdcUsage},
        PeriphCase{"AdcStreamWithoutRate",
                   {},
                   {"adc", "51000001", "stream", "--seconds", "1"},
                   2,
                   "",
                   kAdcUsage},
        PeriphCase{"AdcAdapterNotThere",
                   {},
                   {"adc", "5100000F", "read", "05", "1000", "3"},
                   1,
                   "",
                   "veltrix adc: adapter 5100000F not found or cannot be opened\n"},
        PeriphCase{"AdcAdapterUnpluggedByTheRead",
                   {"VELTRIX_SIM_UNPLUG=51000001:501"},
                   {"adc", "51000001", "read", "05", "1000", "3"},
                   1,
                   "",
                   "veltrix adc: ADC_Read failed (-4)\n"},
        // A refused start leaves no CSV header behind.
        PeriphCase{"AdcAdapterUnpluggedByTheStreamStart",
                   {"VELTRIX_SIM_UNPLUG=51000001:502"},
                   {"adc", "51000001", "stream", "--rate", "1000", "--seconds", "1"},
                   1,
                   "",
                   "veltrix adc: ADC_StartContinueRead failed (-4)\n"}),
    [](const auto& info) { return std::string(info.param.name); });

// The stream's length depends on the clock, so its rows are checked one by one: the row
// count the summary states, and each set continuing both inputs' ramps.
TEST(CliAdc, StreamWritesEverySetItCountsAsCsv) {
  const Result r = run_periph({}, {"adc", "51000001", "stream", "--rate", "1000", "--seconds",
                                   "0.2", "--mask", "3", "--frame", "20"});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::vector<std::string> rows = lines(r.out);
  ASSERT_GE(rows.size(), 2u);
  EXPECT_EQ(rows[0], "sample,time_s,in0,in1");
  for (size_t i = 1; i < rows.size(); ++i) {
    char want[96];
    std::snprintf(want, sizeof want, "%zu,%.7f,%zu,%zu", i - 1, double(i - 1) / 1000, i - 1,
                  4096 + i - 1);
    ASSERT_EQ(rows[i], want);
  }
  EXPECT_EQ(r.err, "veltrix adc: " + std::to_string(rows.size() - 1) +
                       " sets of 2 inputs, 0 frames dropped\n");
}

// An adapter pulled out in the middle of a 5-second stream: the sets received before it
// went are all in the CSV, and the run fails instead of reporting a short stream as done.
TEST(CliAdc, StreamEndedByAnUnplugFailsAndKeepsWhatArrived) {
  const Result r = run_periph({"VELTRIX_SIM_UNPLUG_AFTER=51000001:1000"},
                              {"adc", "51000001", "stream", "--rate", "1000", "--seconds", "5",
                               "--mask", "1", "--frame", "10"});
  EXPECT_EQ(r.status, 1) << r.err;
  const std::vector<std::string> rows = lines(r.out);
  ASSERT_GE(rows.size(), 2u) << r.err;
  EXPECT_EQ(rows[0], "sample,time_s,in0");
  EXPECT_LT(rows.size(), 5000u);  // far fewer than the 5000 sets of a full run
  for (size_t i = 1; i < rows.size(); ++i) {
    char want[96];
    std::snprintf(want, sizeof want, "%zu,%.7f,%zu", i - 1, double(i - 1) / 1000, i - 1);
    ASSERT_EQ(rows[i], want);
  }
  EXPECT_EQ(r.err, "veltrix adc: " + std::to_string(rows.size() - 1) +
                       " sets of 1 inputs, 0 frames dropped\n"
                       "veltrix adc: the stream ended early (adapter unplugged or transfer "
                       "error)\n");
}

TEST(VeltrixSim, ReportsClashingAdapterPositionsAsAMessage) {
  const struct {
    std::string a, b, err;
  } cases[] = {
      {"51000001@1", "51000002@1",
       "veltrix-sim: adapters 51000001 and 51000002 are both placed at port 1\n"},
      {"51000001@1", "51000001@2", "veltrix-sim: adapter 51000001 is placed twice\n"},
      {"51000001@1", "51000002@1.2",
       "veltrix-sim: port 1.2 lies behind adapter 51000001, which is not a hub\n"},
      {"51000001@1.2", "51000002@1",
       "veltrix-sim: port 1 is a hub on the way to another adapter, it cannot also hold adapter "
       "51000002\n"},
  };
  for (const auto& c : cases) {
    Result r = run({kSim, "--adapter", c.a, "--adapter", c.b, "--", kCli, "scan"});
    EXPECT_EQ(r.status, 2) << c.a << " " << c.b;
    EXPECT_EQ(r.err, c.err);
  }
}

}  // namespace
