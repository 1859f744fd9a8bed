#include "kelvane/report/signature.h"

#include <gtest/gtest.h>

namespace kelvane {
namespace {

/// A look at a viewer that waits for its worker: everything in it that differs from run to run does with
/// `run`.
Report reportOf(unsigned run, Cause cause = Cause::lock) {
  Report report;
  report.request.processPath = "/usr/bin/viewer";
  report.request.serviceName = "MainThread";
  ProcessCapture& process = report.process;
  const auto pid = static_cast<pid_t>(1000 * run);
  const uint64_t base = 0x7f0000000000 + uint64_t{run} * 0x1000;
  process.pid = process.hungThread = pid;
  process.modules = {
      {"/lib/libc.so.6", "c0"}, {run == 1 ? "/opt/a/viewer" : "/opt/b/viewer", "ab12"}, {"/p/plugin.so", ""}};
  process.frames = {{base + 0x10, 0, 0x10, {}}, {base + 0x20, 1, 0x20, {}}, {base + 0x30, 2, 0x30, {}},
                    {base + 0x40, -1, 0, {}},   {base, 1, run, {}},         {base + 0x60, 1, 0x60, "load"}};
  process.threads.resize(2);
  process.threads[0].facts.tid = pid;
  process.threads[0].facts.syscall.emplace().number = 202;
  process.threads[0].stack = StackSample{run, run, {0, 1, 2, 3}, {}};
  process.threads[1].facts.tid = pid + 1;
  process.threads[1].stack = StackSample{run, run, {4, 5}, {}};
  Verdict& verdict = report.verdict.emplace();
  verdict.cause = cause;
  verdict.sentence = std::to_string(run);
  auto& links = verdict.chain.emplace().chain.links;
  for (pid_t tid : {pid, pid + 1, pid + 7}) {
    links.emplace_back().party.facts.tid = tid;
    links.back().party.process = "viewer";
  }
  return report;
}

TEST(Signature, IsOfTheCauseAndTheFunctionsAndNotOfTheRun) {
  const std::string signature = signatureOf(reportOf(1));
  // Devices of all versions have to agree; docs/report-format.md says of what it is the hash.
  EXPECT_EQ(signature, "6c3c9280c23cf0a7");
  EXPECT_EQ(signatureOf(reportOf(2)), signature);

  const auto changed = [&](auto change) {
    Report report = reportOf(2);
    change(report);
    return signatureOf(report) != signature;
  };
  EXPECT_NE(signatureOf(reportOf(2, Cause::deadlock)), signature);
  EXPECT_TRUE(changed([](Report& r) { r.process.frames[5].name = "save"; }));
  EXPECT_TRUE(changed([](Report& r) { r.process.frames[1].offset = 0x24; }));
  EXPECT_TRUE(changed([](Report& r) { r.process.modules[1].buildId = "ab13"; }));
  EXPECT_TRUE(changed([](Report& r) { r.verdict->chain->chain.links[2].party.process = "bus"; }));
  EXPECT_TRUE(changed([](Report& r) { r.verdict->chain.reset(); }));
  EXPECT_FALSE(changed([](Report& r) { r.process.frames[0].offset = 0x14; })) << "of the C library";
  EXPECT_FALSE(changed([](Report& r) {
    r.process.threads[0].stack->frames.insert(r.process.threads[0].stack->frames.begin(), 0);
  }));
}

TEST(Signature, WhatHasNoStackIsToldByItsNamesAndWhatHasNoVerdictHasNone) {
  Report report = reportOf(1);
  if (report.verdict) report.verdict->chain.reset();
  report.process.threads.clear();
  const std::string signature = signatureOf(report);
  report.request.serviceName = "Saver";
  EXPECT_NE(signatureOf(report), signature);
  report.verdict.reset();
  EXPECT_EQ(signatureOf(report), "");
}

}  // namespace
}  // namespace kelvane
