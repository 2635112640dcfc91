// The tester's routine-control and measurement side: routine-start and measure.
#include <algorithm>
#include <chrono>
#include <string>

#include "interfaces/diagnosis/nodbox/measurements.h"
#include "interfaces/hmi/hmi_states.h"
#include "interfaces/lum/lum_names.h"
#include "laptop.h"
#include "minfw/clock.h"
#include "minfw/str.h"
#include "printer.h"
#include "tester.h"

namespace orv::tester {

namespace minfw = kel::vxp3::minfw;
using minfw::cat;
using viroutine::RoutineState;

namespace {

constexpr int64_t kStepMs = 100;
constexpr int64_t kAskEveryMs = 1000;
// A measurement that orvane does not answer within this is asked again in the next round.
constexpr int64_t kAnswerLimitMs = 5000;
// orvane pauses 2 s before it starts the update, then answers the start.
constexpr int64_t kStartAnswerLimitMs = 30000;
// Replies to the routine requests of the handshake still on their way.
constexpr int64_t kQuietMs = 500;

int64_t msSince(minfw::Clock::TimePoint start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(minfw::clock().now() - start)
      .count();
}

std::string describe(const diagNewStatusType& s) {
  return cat("update type ", s.updateType, ", channel ", channelName(s.channel), ", HMI ",
             hmiStateName(s.stateHmi), ", LUM ", lum::sessionStepName(s.stateLum), ", progress ",
             s.progress, "%, error ", s.errorCode);
}

const char* stateName(RoutineState state) {
  switch (state) {
    case RoutineState::ROUTINE_START_ERROR:
      return "ROUTINE_START_ERROR";
    case RoutineState::ROUTINE_STARTED:
      return "ROUTINE_STARTED";
    case RoutineState::ROUTINE_FINISHED:
      return "ROUTINE_FINISHED";
  }
  return "UNKNOWN";
}

}  // namespace

int Tester::offerServices() {
  routine_ = std::make_unique<RoutineService>(runtime_.get());
  measurement_ = std::make_unique<MeasurementService>(runtime_.get());
  const auto offeredRoutine = routine_->OfferService();
  const auto offeredMeasurement = measurement_->OfferService();
  if (!offeredRoutine || !offeredMeasurement) {
    err_ << "diag-tester: cannot offer the routine-control and measurement services: "
         << (offeredRoutine ? offeredMeasurement.errorMessage() : offeredRoutine.errorMessage())
         << "\n";
    return kExitNotFound;
  }
  return kExitOk;
}

std::optional<MeasurementReply> Tester::ask(uint16_t measurementId, int64_t limitMs) {
  const uint32_t requestId = ++requestId_;
  const auto start = minfw::clock().now();
  auto sent = start - std::chrono::milliseconds(kAskEveryMs);
  while (msSince(start) < limitMs && !interrupted(0)) {
    // orvane sees the requests only once it has subscribed: a lost one is asked again.
    if (std::chrono::duration_cast<std::chrono::milliseconds>(minfw::clock().now() - sent)
            .count() >= kAskEveryMs) {
      sent = minfw::clock().now();
      measurement_->sendMeasurementRequest(requestId, measurementId);
    }
    if (auto reply = measurement_->replies.take(kStepMs)) {
      if (reply->requestId == requestId)
        return reply;
    }
  }
  return std::nullopt;
}

int Tester::measure() {
  const int64_t limitMs = options_.findS * 1000;
  const auto state = ask(measurement::kUpdateState, limitMs);
  const auto stamps = state ? ask(measurement::kTimestamps, limitMs) : std::nullopt;
  if (!state || !stamps) {
    err_ << "diag-tester: orvane did not answer the measurement within " << options_.findS
         << " s\n";
    return kExitNotFound;
  }
  diagNewStatusType s;
  diagTimestampType t;
  if (state->status != vimeasurement::MeasurementStatus::ok ||
      !measurement::decode(state->data, s) ||
      stamps->status != vimeasurement::MeasurementStatus::ok ||
      !measurement::decode(stamps->data, t)) {
    err_ << "diag-tester: measurement not available or not readable (status "
         << static_cast<int>(state->status) << ", " << static_cast<int>(stamps->status) << ")\n";
    return kExitFailed;
  }
  out_ << "update state: " << describe(s) << "\n"
       << "timestamps:   type " << t.dtType << ", start " << t.dtStartDate << " " << t.dtStartTime
       << ", end " << t.dtEndDate << " " << t.dtEndTime << ", error " << t.dtErr << " ("
       << t.dtErrTxt << ")\n";
  return kExitOk;
}

int Tester::routineStart() {
  if (options_.order.size() > kUpdateOrderSize) {
    err_ << "diag-tester: the update order has more than " << kUpdateOrderSize << " bytes\n";
    return kExitUsage;
  }
  Printer print(out_);
  // The order text, then zero bytes up to the parameter's fixed size.
  std::vector<uint8_t> parameter(options_.order.begin(), options_.order.end());
  parameter.resize(kUpdateOrderSize, 0);

  // The request is answered with ROUTINE_STARTED, ROUTINE_FINISHED; it is sent again until
  // orvane has subscribed and answers, which also proves that it can reach the tester.
  print.line(cat("diag-tester: routine request 0x", minfw::hex(kUpdateRoutine),
                 " with the update order [", options_.order, "]"));
  const auto start = minfw::clock().now();
  auto sent = start - std::chrono::milliseconds(kAskEveryMs);
  bool answered = false;
  while (!answered && msSince(start) < options_.findS * 1000) {
    if (interrupted(0))
      return kExitFailed;
    if (msSince(sent) >= kAskEveryMs) {
      sent = minfw::clock().now();
      routine_->sendRoutineRequest(kUpdateRoutine, parameter);
    }
    const auto reply = routine_->replies.take(kStepMs);
    answered = reply && reply->routineId == kUpdateRoutine &&
               reply->state == RoutineState::ROUTINE_FINISHED;
  }
  if (!answered) {
    err_ << "diag-tester: orvane did not answer the routine request within " << options_.findS
         << " s\n";
    return kExitNotFound;
  }
  while (routine_->replies.take(kQuietMs)) {
  }

  print.line(cat("diag-tester: start of routine 0x", minfw::hex(kUpdateRoutine)));
  routine_->sendStartRoutine(kUpdateRoutine);
  std::optional<RoutineState> outcome;
  const auto asked = minfw::clock().now();
  while (outcome != RoutineState::ROUTINE_FINISHED && msSince(asked) < kStartAnswerLimitMs) {
    if (interrupted(0))
      return kExitFailed;
    if (const auto reply = routine_->replies.take(kStepMs)) {
      print.line(cat("diag-tester: startRoutineReply ", stateName(reply->state)));
      outcome = reply->state;
      if (outcome == RoutineState::ROUTINE_START_ERROR) {
        print.line("diag-tester: orvane refused to start the update");
        return kExitFailed;
      }
    }
  }
  if (outcome != RoutineState::ROUTINE_FINISHED) {
    print.line(
        cat("diag-tester: no answer to the start within ", kStartAnswerLimitMs / 1000, " s"));
    return kExitFailed;
  }

  // The update runs on in orvane: followed through the update-state measurement.
  laptop::UpdateWatch watch;
  std::string shown;
  const auto began = minfw::clock().now();
  while (msSince(began) < options_.timeoutS * 1000) {
    const auto reply = ask(measurement::kUpdateState, kAnswerLimitMs);
    diagNewStatusType s;
    if (reply && reply->status == vimeasurement::MeasurementStatus::ok &&
        measurement::decode(reply->data, s)) {
      // A line when the update moves on; the bar for its progress.
      const std::string step =
          cat(s.updateType, ".", s.channel, ".", s.stateHmi, ".", s.stateLum, ".", s.errorCode);
      if (step != shown) {
        shown = step;
        print.line(cat("update state: ", describe(s)));
      }
      print.bar(hmiStateName(s.stateHmi), s.progress, 100);
      const auto ended = watch.observe({s.stateHmi, s.progress, s.errorCode});
      if (ended != laptop::Outcome::kRunning) {
        const bool finished = ended == laptop::Outcome::kFinished;
        print.line(finished ? "diag-tester: the update finished"
                            : cat("diag-tester: the update failed, error ", s.errorCode));
        return finished ? kExitOk : kExitFailed;
      }
    }
    if (interrupted(kAskEveryMs))
      return kExitFailed;
  }
  print.line(cat("diag-tester: no end of the update within ", options_.timeoutS, " s"));
  return kExitFailed;
}

}  // namespace orv::tester
