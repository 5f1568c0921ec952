// Measures the platform calls on the path of every operation, each alone and in one thread. No state.
#include <windows.h>

#include <benchmark/benchmark.h>

#include <cstring>

namespace {

void CompareNames(benchmark::State& state) {
    const char* names[] = {"PrinterStatus", "PrinterStatus2", "RWResult", "RunningPSW"};
    int i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(lstrcmpA(names[i & 3], names[(i + 1) & 3]));
        ++i;
    }
}
BENCHMARK(CompareNames);

void GuardedRead(benchmark::State& state) {
    char source[4096] = {};
    char destination[4096];
    const auto size = static_cast<SIZE_T>(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(ReadProcessMemory(GetCurrentProcess(), source, destination, size, nullptr));
}
BENCHMARK(GuardedRead)->Arg(16)->Arg(64)->Arg(1024)->Arg(4096);

void GuardedWrite(benchmark::State& state) {
    char source[4096] = {};
    char destination[4096];
    const auto size = static_cast<SIZE_T>(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(WriteProcessMemory(GetCurrentProcess(), destination, source, size, nullptr));
}
BENCHMARK(GuardedWrite)->Arg(4)->Arg(12)->Arg(1024)->Arg(4096);

void HeapBlock(benchmark::State& state) {
    const HANDLE heap = HeapCreate(0, 32768, 0);
    for (auto _ : state) {
        void* block = HeapAlloc(heap, HEAP_ZERO_MEMORY, static_cast<SIZE_T>(state.range(0)));
        benchmark::DoNotOptimize(block);
        HeapFree(heap, 0, block);
    }
    HeapDestroy(heap);
}
BENCHMARK(HeapBlock)->Arg(64)->Arg(4096);

void NamedMutex(benchmark::State& state) {
    const HANDLE mutex = CreateMutexA(nullptr, FALSE, "bench:calls:mutex");
    for (auto _ : state) {
        WaitForSingleObject(mutex, INFINITE);
        ReleaseMutex(mutex);
    }
    CloseHandle(mutex);
}
BENCHMARK(NamedMutex);

void NamedEventSetReset(benchmark::State& state) {
    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, "bench:calls:event");
    for (auto _ : state) {
        SetEvent(event);
        ResetEvent(event);
    }
    CloseHandle(event);
}
BENCHMARK(NamedEventSetReset);

} // namespace

BENCHMARK_MAIN();
