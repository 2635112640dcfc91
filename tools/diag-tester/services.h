#pragma once
// The two services that the tester offers to orvane: routine control (the tester sends a
// routine's parameter and its start as events; orvane answers through startRoutineReply) and
// measurement (the tester asks through an event; orvane answers through measurementReply). The
// answers land in mailboxes that the tester's command reads.
//
// Threading: the answers arrive on a binding thread; Mailbox is thread-safe (its mutex guards
// the queue). The services stop offering in their destructors, before their mailboxes go.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

#include "interfaces/diagnosis/nodbox/vimeasurement_skeleton.h"
#include "interfaces/diagnosis/nodbox/viroutine_skeleton.h"

namespace orv::tester {

// The routine that starts a local update, and the size of its parameter.
inline constexpr uint32_t kUpdateRoutine = 0x4C9;
inline constexpr std::size_t kUpdateOrderSize = 116;

template <typename T>
class Mailbox {
 public:
  void put(T value) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      queue_.push_back(std::move(value));
    }
    arrived_.notify_all();
  }
  // The oldest answer, waiting up to `ms` for one.
  std::optional<T> take(int64_t ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!arrived_.wait_for(lock, std::chrono::milliseconds(ms), [&] { return !queue_.empty(); }))
      return std::nullopt;
    T value = std::move(queue_.front());
    queue_.pop_front();
    return value;
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<T> queue_;
};

struct RoutineReply {
  uint32_t routineId = 0;
  viroutine::RoutineState state{};
};

class RoutineService final : public viroutine::skeleton::ViRoutineSkeleton {
 public:
  explicit RoutineService(platform::middleware::Binding* binding)
      : ViRoutineSkeleton(platform::middleware::InstanceSpecifier("1"), binding) {}
  ~RoutineService() override { StopOfferService(); }

  platform::middleware::Future<viroutine::methods::StartRoutineReply::Output> startRoutineReply(
      uint32_t routineId, viroutine::RoutineState routineState) override {
    replies.put({routineId, routineState});
    return platform::middleware::Future<viroutine::methods::StartRoutineReply::Output>::ready(
        viroutine::methods::StartRoutineReply::Output{
            routineId == kUpdateRoutine ? viroutine::ReturnStatus::ok
                                        : viroutine::ReturnStatus::unknownRoutine});
  }

  Mailbox<RoutineReply> replies;
};

struct MeasurementReply {
  uint32_t requestId = 0;
  uint16_t measurementId = 0;
  vimeasurement::MeasurementStatus status{};
  std::vector<uint8_t> data;
};

class MeasurementService final : public vimeasurement::skeleton::ViMeasurementSkeleton {
 public:
  explicit MeasurementService(platform::middleware::Binding* binding)
      : ViMeasurementSkeleton(platform::middleware::InstanceSpecifier("1"), binding) {}
  ~MeasurementService() override { StopOfferService(); }

  void measurementReply(uint32_t requestId, uint16_t measurementId,
                        vimeasurement::MeasurementStatus status,
                        const std::vector<uint8_t>& data) override {
    replies.put({requestId, measurementId, status, data});
  }

  Mailbox<MeasurementReply> replies;
};

}  // namespace orv::tester
