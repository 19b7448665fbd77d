// Figure 2: the queue round trip, from InsertTask of a typical creation
// request on the caller's thread to the start of its OnTaskExecution on an
// idle worker, with the deep copy's share of it; the reference is the bare
// hand-over of the same host event between two threads.
// Figure 6 (first half): heap bytes a queued task keeps, against the bytes
// of the switch's own message.
//
// The serializer is the module's own CTaskSerializer<SipJson>, compiled into
// this program from its header, with a probe as the derived class.
#include "bench/BenchSupport.h"
#include "tasks/TaskSerializer.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <memory>
#include <semaphore.h>
#include <string>
#include <thread>
#include <vector>

namespace kb = korvex_bench;

namespace {

// How long the caller leaves the worker alone before the next insertion, so
// that it is back in its wait (idle) when the task arrives.
constexpr std::int64_t kIdleGapNs = 500000;

class CProbeSerializer : public CTaskSerializer<SipJson> {
 public:
  CProbeSerializer() { sem_init(&m_Started, 0, 0); }
  ~CProbeSerializer() override {
    TerminateSerialization();
    sem_destroy(&m_Started);
  }

  void OnTaskExecution(SipJson& /*task*/, _TaskPriority /*level*/) override {
    m_StartNs.store(kb::NowNs(), std::memory_order_relaxed);
    sem_post(&m_Started);
  }

  std::int64_t WaitStarted() {
    while (sem_wait(&m_Started) != 0) {
    }
    return m_StartNs.load(std::memory_order_relaxed);
  }

 private:
  sem_t m_Started;
  std::atomic<std::int64_t> m_StartNs{0};
};

void Report(benchmark::State& state, const char* prefix, const std::vector<std::int64_t>& ns) {
  const std::string p(prefix);
  state.counters[p + "median_us"] = kb::Percentile(ns, 50) / 1000.0;
  state.counters[p + "p90_us"] = kb::Percentile(ns, 90) / 1000.0;
  state.counters[p + "p99_us"] = kb::Percentile(ns, 99) / 1000.0;
  state.counters[p + "max_us"] = kb::Percentile(ns, 100) / 1000.0;
}

void BM_QueueRoundTrip(benchmark::State& state) {
  const long samples = kb::EnvNumber("KORVEX_BENCH_QUEUE_SAMPLES", 2000);
  SipJson request;
  if (!kb::LoadRequest(request, kb::RequestText(kb::kOpcodeCreate), 1)) {
    return kb::Fail(state, "request text does not parse");
  }
  for (auto _ : state) {
    CProbeSerializer serializer;
    serializer.StartSerialization();
    std::vector<std::int64_t> roundTrip;
    std::vector<std::int64_t> insertCall;
    for (long i = 0; i < samples; ++i) {
      kb::SleepNs(kIdleGapNs);
      const std::int64_t t0 = kb::NowNs();
      const int queued = serializer.InsertTask(request, CProbeSerializer::TASK_PRIORITY_0, nullptr);
      const std::int64_t t1 = kb::NowNs();
      if (queued != 1) return kb::Fail(state, "InsertTask refused the task");
      const std::int64_t started = serializer.WaitStarted();
      roundTrip.push_back(started - t0);
      insertCall.push_back(t1 - t0);
    }
    Report(state, "", roundTrip);
    Report(state, "insert_", insertCall);
    state.counters["samples"] = static_cast<double>(samples);
  }
}

// Reference: a host event set on one thread and seen by another that waits
// on it, the same way the worker waits (manual reset, no time-out).
void BM_EventHandOver(benchmark::State& state) {
  const long samples = kb::EnvNumber("KORVEX_BENCH_QUEUE_SAMPLES", 2000);
  for (auto _ : state) {
    CEvent event(0, 1, nullptr, nullptr);
    sem_t seen;
    sem_init(&seen, 0, 0);
    std::atomic<bool> stop{false};
    std::atomic<std::int64_t> stamp{0};
    std::thread waiter([&] {
      for (;;) {
        event.Wait(CEvent::kInfinite, 1);
        if (stop.load()) break;
        stamp.store(kb::NowNs(), std::memory_order_relaxed);
        event.Reset();
        sem_post(&seen);
      }
    });
    std::vector<std::int64_t> handOver;
    for (long i = 0; i < samples; ++i) {
      kb::SleepNs(kIdleGapNs);
      const std::int64_t t0 = kb::NowNs();
      event.Set();
      while (sem_wait(&seen) != 0) {
      }
      handOver.push_back(stamp.load(std::memory_order_relaxed) - t0);
    }
    stop.store(true);
    event.Set();
    waiter.join();
    sem_destroy(&seen);
    Report(state, "", handOver);
  }
}

// The deep copy InsertTask makes: a new message, then the message copy rule
// (reset, deep copy of the document, index, tag string). Timed in batches so
// that the frees, which happen later on the worker, stay out of it.
void BM_TaskCopy(benchmark::State& state) {
  SipJson request;
  if (!kb::LoadRequest(request, kb::RequestText(kb::kOpcodeCreate), 1)) {
    return kb::Fail(state, "request text does not parse");
  }
  constexpr int kBatch = 256;
  std::vector<SipJson*> copies(kBatch, nullptr);
  std::vector<std::int64_t> perCopy;
  for (auto _ : state) {
    for (int round = 0; round < 400; ++round) {
      const std::int64_t t0 = kb::NowNs();
      for (int i = 0; i < kBatch; ++i) {
        copies[i] = new SipJson();
        copies[i]->CopyFrom(request);
      }
      const std::int64_t t1 = kb::NowNs();
      for (SipJson*& copy : copies) {
        delete copy;
        copy = nullptr;
      }
      perCopy.push_back((t1 - t0) / kBatch);
    }
  }
  state.counters["copy_median_ns"] = kb::Percentile(perCopy, 50);
}

// Figure 6: what a queued task keeps on the heap. Nineteen tasks fill the
// queue (the ring takes 19 records); the worker is not started, so they stay.
void BM_QueuedTaskBytes(benchmark::State& state) {
  const std::string text = kb::RequestText(kb::kOpcodeCreate);
  SipJson request;
  if (!kb::LoadRequest(request, text, 1)) return kb::Fail(state, "request text does not parse");
  for (auto _ : state) {
    kb::OpenHeapWindow();
    std::unique_ptr<SipJson> own(new SipJson());
    kb::LoadRequest(*own, text, 1);
    const kb::CHeapCount message = kb::CloseHeapWindow();

    CProbeSerializer serializer;
    constexpr int kTasks = 19;
    kb::OpenHeapWindow();
    int queued = 0;
    for (int i = 0; i < kTasks; ++i) {
      queued += serializer.InsertTask(request, CProbeSerializer::TASK_PRIORITY_0, nullptr);
    }
    const kb::CHeapCount tasks = kb::CloseHeapWindow();
    if (queued != kTasks) return kb::Fail(state, "the queue did not take 19 tasks");
    if (serializer.InsertTask(request, CProbeSerializer::TASK_PRIORITY_0, nullptr) != 0) {
      return kb::Fail(state, "the queue took a twentieth task");
    }
    state.counters["bytes_per_task"] = static_cast<double>(tasks.m_Bytes) / kTasks;
    state.counters["blocks_per_task"] = static_cast<double>(tasks.m_Blocks) / kTasks;
    state.counters["message_bytes"] = static_cast<double>(message.m_Bytes);
    state.counters["message_blocks"] = static_cast<double>(message.m_Blocks);
    state.counters["message_json_bytes"] = static_cast<double>(text.size());
  }
}

}  // namespace

BENCHMARK(BM_QueueRoundTrip)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EventHandOver)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TaskCopy)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QueuedTaskBytes)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
