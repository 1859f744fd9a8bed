#include "tools/report/report.h"

#include <gtest/gtest.h>

#include "tools/base/table.h"
#include "tools/report/report_text.h"
#include "tools/report/verdict_text.h"

using quorvelctl::Report;
using quorvelctl::ReportHeader;

namespace {

// A report with one thread more than the hung one; a name that would speak to a terminal.
constexpr const char* kReport = R"({"metadata":{"format":"kelvane","version":1,"writtenBy":"kelvane 9.8.7",
"Reason":"MainThread-viewer: timeout 8500ms","ServiceName":"MainThread","ProcessPath":"/usr/bin/viewer","PID":41,
"ThreadID":41,"StartTime":24000000,"EndTime":228000000,"DisplayData":[12000000,-1,48000000,0],
"host":{"system":"Linux","kernel":"6.1","cpus":2},"capture":{"time":"2026-03-01T10:00:00Z"},
"leftOut":[{"what":"scheduler events","why":"not recorded"}]},
"traceEvents":[{"ph":"P","tid":41,"sf":"4"},{"ph":"P","tid":42,"sf":"2"},{"ph":"X","tid":41}],
"stackFrames":{"1":{"name":"main","category":"viewer","module":"/usr/bin/viewer","offset":"0x10","build_id":"ab"},
"2":{"name":"libc.so.6+0x20","category":"libc.so.6","parent":"1","module":"/lib/libc.so.6","offset":"0x20"},
"3":{"name":"do_futex","category":"kernel","parent":"2"},"4":{"name":"futex_wait","category":"kernel","parent":"3"}},
"threads":[{"tid":42,"name":"wor\u001b[31mker","state":"sleeping","syscall":999},
{"tid":41,"name":"viewer","hung":true,"state":"sleeping","waitChannel":"futex_do_wait","syscall":202,
"syscallName":"futex","userMs":12,"systemMs":3,"kernelStack":["futex_wait","do_futex"]}]})";

TEST(ReportFile, IsToldInWords) {
  std::string error;
  const Report report = quorvelctl::parseReport(kReport, error).value_or(Report{});
  const std::string text = quorvelctl::reportText(report);
  EXPECT_EQ(text,
            "hang MainThread: viewer (pid 41), 8.50 s\n\n"
            "reason   MainThread-viewer: timeout 8500ms\n"
            "process  /usr/bin/viewer\n"
            "thread   41\n"
            "ticks    24000000 to 228000000\n"
            "display  unknown from 500 ms before it began, then off from 1.00 s into it\n"
            "made     2026-03-01T10:00:00Z by kelvane 9.8.7\n"
            "host     Linux, 6.1, 2 CPUs\n\n"
            "Thread 41 viewer, which hung: sleeping in futex_do_wait, system call futex\n"
            "CPU time so far: 12 ms user, 3 ms system\n\n"
            "  kernel, innermost first\n    futex_wait\n    do_futex\n\n"
            "  user, innermost first\n    libc.so.6+0x20\n    main  (viewer+0x10)\n\n"
            "Other threads\n"
            "THREAD  NAME         DOING                      INNERMOST FRAME\n"
            "42      wor?[31mker  sleeping, system call 999  libc.so.6+0x20\n\n"
            "Left out\n  scheduler events: not recorded\n");
}

TEST(ReportFile, AThreadOfAnotherProcessIsToldAsThat) {
  std::string text(kReport);
  text.insert(text.find("\"leftOut\""), R"("verdict":{"cause":"peer","sentence":"It waited.",
"chain":[{"tid":41,"pid":41,"waitsFor":{"tid":77}},{"tid":77,"name":"worker","pid":70,"process":"server","culprit":"slept"}]},)");
  text.insert(text.find("{\"ph\":\"X\""), R"({"ph":"P","pid":70,"tid":77,"sf":"1"},)");
  text.insert(text.rfind(']'), R"(,{"tid":77,"name":"worker","pid":70,"process":"server","state":"sleeping"},
{"tid":78,"name":"proxy","pid":78,"process":"pro\u001bxy","state":"sleeping"})");
  std::string error;
  const std::string told = quorvelctl::reportText(quorvelctl::parseReport(text, error).value_or(Report{}));
  EXPECT_NE(told.find("Thread 77 worker of server (pid 70), the culprit: sleeping\n"), std::string::npos)
      << told;
  EXPECT_NE(told.find("  user, innermost first\n    main  (viewer+0x10)\n"), std::string::npos) << told;
  EXPECT_NE(told.find("78      proxy of pro?xy (pid 78) "), std::string::npos) << told;
}

TEST(ReportFile, TellsWhereTheTimeWent) {
  std::string text(kReport);
  text.insert(text.find("\"leftOut\""), R"("sampled":{"ts":1,"durationMs":4000,"samples":60,
"places":[{"sf":"1","onCpuMs":2000,"readyMs":280,"waitedMs":0.4},{"sf":"4","onCpuMs":-1,"waitedMs":1640},{"sf":7},{"sf":"k","waitedMs":40},
{"sf":"1","onCpuMs":19}],"notSeen":{"waitedMs":60}},)");
  text.insert(text.find("\"stackFrames\":{") + 15, R"("k":{"category":"kernel","parent":"k"},)");
  text.insert(text.find("{\"ph\":\"X\""), R"({"ph":"P","cat":"sample","tid":41,"sf":"1"},)");
  std::string error;
  const Report report = quorvelctl::parseReport(text, error).value_or(Report{});
  EXPECT_NE(quorvelctl::reportText(report).find(
                "\n\n"
                "Where it was in the last 4.00 s, by 60 samples\n"
                "SHARE  FOR     ON CPU  READY   WAITED  IN\n"
                "57 %   2.28 s  2.00 s  280 ms  -       main\n"
                "41 %   1.64 s  -       -       1.64 s  libc.so.6+0x20 (futex_wait)  from main\n"
                "1 %    40 ms   -       -       40 ms   (unknown)\n"
                "2 %    60 ms   -       -       60 ms   (not seen)\n\n"),
            std::string::npos)
      << quorvelctl::reportText(report);
  EXPECT_EQ(report.threads[0].userStack.size(), 2u) << "a sample is not the look";
}

TEST(ReportFile, ALaunchIsToldWithItsPathPhasesAndProcesses) {
  std::string text(kReport);
  text.replace(text.find("\"PID\":41"), 8, "\"PID\":0");
  text.insert(
      text.find("\"leftOut\""),
      R"("verdict":{"cause":"disk","sentence":"It waited.","disk":{"rival":{"tid":9,"name":"sync","process":"backup"}}},
"launch":{"pid":51,"name":"viewer","followed":{"tid":51,"name":"viewer","pid":51,"process":"viewer"},
"phases":[{"from":"begin","to":"fork","pid":51,"process":"viewer","durationMs":12.5},{"from":"fork","to":"end","durationMs":8487.5,
"mostly":{"tid":51,"name":"viewer","pid":51,"process":"viewer","doing":"disk","durationMs":7000}}],
"path":[{"tid":51,"name":"viewer","pid":51,"process":"viewer","doing":"disk","durationMs":7000,"function":"read\u001b"},
{"tid":8,"name":"sh\u001b","threads":3,"doing":"running","durationMs":1400},{"tid":7,"doing":"stopped","durationMs":80}],
"processCount":3,"processes":[{"pid":51,"name":"viewer","threads":2,"madeTs":1012500,"runningMs":300},
{"pid":52,"name":"helper","parent":51,"threads":1,"madeTs":2000000,"endedTs":2500000.5,"runningMs":0.4},4]},)");
  std::string error;
  const Report report = quorvelctl::parseReport(text, error).value_or(Report{});
  const std::string shown = quorvelctl::reportText(report);
  EXPECT_EQ(shown.find("slow launch MainThread: viewer (pid 51), 8.50 s\n\nIt waited.\n"), 0u) << shown;
  EXPECT_NE(
      shown.find("\nWhat the launch took its time for\n"
                 "  FOR     SHARE   DOING                         THREAD\n"
                 "  7.00 s  82.4 %  waiting for a disk, in read?  viewer (51)\n"
                 "  1.40 s  16.5 %  on the CPU                    sh? (8) and 2 more\n\n"
                 "Its phases\n"
                 "  FOR     FROM                 TO                   MOSTLY\n"
                 "  12 ms   begin                fork of viewer (51)  -\n"
                 "  8.49 s  fork of viewer (51)  end                  viewer (51) waiting for a disk\n\n"
                 "Its processes\n"
                 "  PID  PROCESS  MADE BY       MADE     ENDED    THREADS  CPU\n"
                 "  51   viewer   the launcher  +12 ms   -        2        300 ms\n"
                 "  52   helper   51            +1.00 s  +1.50 s  1        0.40 ms\n"
                 "  and 1 more\n\n"
                 "reason "),
      std::string::npos)
      << shown;
  EXPECT_EQ(quorvelctl::culpritOf(report), "backup/sync");
}

TEST(ReportFile, ItsVerdictComesFirst) {
  std::string text(kReport);
  text.insert(text.find("\"leftOut\""), R"("verdict":{"cause":"lock","sentence":"It waited for \u001bworker.",
"evidence":{"source":"recorder","windowMs":8500.0,"coveredMs":6375,"eventsLost":12},
"spent":{"runningMs":170,"sleepingMs":8330.4,"stoppedMs":0},
"waits":[{"ts":1000500,"durationMs":8000,"state":"sleeping","waitChannel":"futex_do_wait",
"wokenBy":{"tid":42,"name":"worker","pid":41,"process":"viewer"}},{"ts":999000,"durationMs":10,"state":"sleeping"},
{"durationMs":1}],
"chain":[{"tid":41,"name":"viewer","pid":41,"process":"viewer","function":"main","text":"waits for a lock that 'wor\u001b' (42) holds",
"waitsFor":{"kind":"lock","tid":42,"sureness":"certain","evidence":"the mutex's owner"}},
{"tid":42,"name":"worker","pid":41,"process":"viewer","function":"read","text":"waits for 'bus' (55), through a pipe","waitsFor":{"sureness":"likely"}},
{"tid":55,"name":"bus","pid":55,"process":"bus","text":"slept","culprit":"slept"}],
"busiest":[{"tid":9,"name":"hog","pid":8,"process":"hogs","runningMs":4250}],
"disk":{"requests":3,"readBytes":4096,"writtenBytes":-1,"busyMs":20,"slowestMs":9},
"pressure":{"io":{"some10":12.34,"full10":3}}},)");
  std::string error;
  const Report report = quorvelctl::parseReport(text, error).value_or(Report{});
  const std::string shown = quorvelctl::reportText(report);
  EXPECT_EQ(shown.substr(0, shown.find("reason")),
            "hang MainThread: viewer (pid 41), 8.50 s\n\n"
            "It waited for ?worker.\n\n"
            "Who waited for whom\n"
            "     viewer (41), in main\n"
            "     | waits for a lock that 'wor?' (42) holds\n"
            "     v\n"
            "     worker (42) of the same process, in read\n"
            "     | waits for 'bus' (55), through a pipe (likely)\n"
            "     v\n"
            "  => bus (55)\n"
            "       slept\n\n"
            "How the hung thread spent the time\n"
            "  STATE     FOR     SHARE   \n"
            "  sleeping  8.33 s  98.0 %  #############################\n"
            "  running   170 ms  2.0 %   #\n\n"
            "Its longest waits\n"
            "  FOR     FROM      STATE     IN             WOKEN BY\n"
            "  8.00 s  +0.50 ms  sleeping  futex_do_wait  worker (42) of the same process\n"
            "  10 ms   -1 ms     sleeping  -              -\n\n"
            "Busiest other threads\n"
            "  RAN     OF A CPU  THREAD\n"
            "  4.25 s  66.7 %    hog (9) of hogs (8)\n\n"
            "  disk         3 requests, 4 KB read, 0 B written; busy for 20 ms, the slowest took 9 ms\n"
            "  io pressure  some tasks waited 12.3 % of the last 10 s, all 3.0 %\n"
            "  evidence     recorder: 6.38 s of 8.50 s covered (75.0 %), 12 events lost\n\n");

  // A deadlock: the last one waits for an earlier one. The culprit's stack is told in full.
  const std::string end = R"("text":"slept","culprit":"slept"})";
  text.replace(text.find(end), end.size(), R"("text":"waits","culprit":"deadlock","waitsFor":{"tid":42}})");
  text.insert(text.find(R"("text":"waits for 'bus')"), R"("culprit":"deadlock",)");
  const std::string circle = quorvelctl::reportText(quorvelctl::parseReport(text, error).value_or(Report{}));
  EXPECT_NE(circle.find("  => bus (55)\n     | waits\n     '-> back to worker\n"), std::string::npos)
      << circle;
  EXPECT_NE(circle.find("Thread 42 wor?[31mker, the culprit: sleeping"), std::string::npos) << circle;
  EXPECT_EQ(circle.find("Other threads"), std::string::npos) << circle;
}

TEST(ReportFile, ItsHeaderIsReadWithoutTheRest) {
  const std::string text(kReport);
  std::string error;
  const ReportHeader header =
      quorvelctl::parseReportMetadata(text.substr(0, text.find("\"traceEvents\"")), error)
          .value_or(quorvelctl::ReportMetadata{})
          .header;
  EXPECT_EQ(header.kind() + " " + header.processName(), "hang viewer");
  EXPECT_DOUBLE_EQ(header.durationMs(), 8500);
}

TEST(ReportFile, WhatIsOfAnotherTypeStaysEmptyAndWhatIsNoReportIsRefused) {
  std::string error;
  const Report odd =
      quorvelctl::parseReport(
          R"({"metadata":{"PID":"x","ServiceName":7,"DisplayData":[1,"y",3]},"threads":[3,{"hung":"yes"}],
          "traceEvents":[{"ph":"P","tid":0,"sf":"1"}],"stackFrames":{"1":{"parent":"1"}}})",
          error)
          .value_or(Report{});
  EXPECT_EQ(odd.header.kind(), "trace");
  EXPECT_EQ(odd.threads.size(), 2u);
  for (const char* text : {"", "[]", "{}", "{\"metadata\":", "{\"metadata\":{\"PID\":1", "\xff"}) {
    EXPECT_FALSE(quorvelctl::parseReport(text, error)) << text;
    EXPECT_FALSE(quorvelctl::parseReportMetadata(text, error)) << text;
  }
}

TEST(Printable, ShowsNothingThatATerminalObeysOrThatTurnsTextRound) {
  EXPECT_EQ(quorvelctl::printable("a\x1b[2J\n\x7f"), "a?[2J??");
  EXPECT_EQ(quorvelctl::printable("\xC2\x9B"
                                  "b\xE2\x80\xAE"
                                  "c\xE2\x81\xA6\xD8\x9C\xE2\x80\xA8"),
            "?b?c???");
  for (const char* kept : {"caf\xC3\xA9 \xC2\xA0 \xE2\x82\xAC \xE2\x80\xA6 \xD8\xB4", "\xC2", "\xE2\x80"}) {
    EXPECT_EQ(quorvelctl::printable(kept), kept);
  }
}

}  // namespace
