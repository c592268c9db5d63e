// Throughput of the companion pipe server: four clients each write a run of Apple write reports while the
// server reads them, beside a bare overlapped server (four instances, one read per message, nothing else)
// in the same run.
//
//   benchmark_pipe [MESSAGES_PER_CLIENT]
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cwchar>
#include <string>
#include <thread>
#include <vector>

#include "channels/named_pipe_base.h"

namespace {

constexpr int kClients = 4;
constexpr wchar_t kServerPipe[] = L"\\\\.\\pipe\\dorWEXBenchmarkServer";
constexpr wchar_t kBarePipe[] = L"\\\\.\\pipe\\dorWEXBenchmarkBare";
const std::wstring kMessage =
    L"Event^WRITE~SerialNumber^00008030-001A2B3C4D5E~strPID^4711~TargetPath^Internal Storage\\DCIM\\IMG_0001.jpg~"
    L"LocalFileName^C:\\Users\\me\\Pictures\\IMG_0001.jpg~ClientPid^4711~WriteToken^6F9619FF-8B86-D011-B42D-00C04FC964FF";

// The product's server, counting what it is handed.
class CountingPipe : public CDorWEXWMIWPDNamedPipeBase {
public:
    using CDorWEXWMIWPDNamedPipeBase::CDorWEXWMIWPDNamedPipeBase;
    int ProcessData(PipeInstance) override {
        ++received;
        return 0;
    }
    std::atomic<long> received{0};
};

// The bare server: four overlapped message-mode instances, a read posted on each, re-armed when done.
void BareServer(HANDLE stop, std::atomic<long>& received) {
    struct Instance {
        HANDLE pipe;
        OVERLAPPED overlapped;
        BYTE buffer[8192];
        bool connected;
    };
    std::vector<Instance> instances(kClients);
    HANDLE events[kClients + 1];
    // Waits for the next client; one that came already is served at once.
    const auto accept = [](Instance& instance) {
        instance.connected = false;
        ResetEvent(instance.overlapped.hEvent);
        if (!ConnectNamedPipe(instance.pipe, &instance.overlapped) && GetLastError() == ERROR_PIPE_CONNECTED) {
            SetEvent(instance.overlapped.hEvent);
        }
    };
    for (int i = 0; i < kClients; ++i) {
        Instance& instance = instances[i];
        instance = {};
        instance.overlapped.hEvent = events[i] = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        instance.pipe = CreateNamedPipeW(kBarePipe, PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED,
                                         PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT, kClients, 8192, 8192, 0,
                                         nullptr);
        accept(instance);
    }
    events[kClients] = stop;
    for (;;) {
        const DWORD index = WaitForMultipleObjects(kClients + 1, events, FALSE, INFINITE) - WAIT_OBJECT_0;
        if (index >= kClients) {
            break;
        }
        Instance& instance = instances[index];
        DWORD bytes = 0;
        const BOOL done = GetOverlappedResult(instance.pipe, &instance.overlapped, &bytes, FALSE);
        if (instance.connected && done && bytes > 0) {
            ++received;
        }
        if (!done && instance.connected) {
            DisconnectNamedPipe(instance.pipe);
            accept(instance);
            continue;
        }
        instance.connected = true;
        if (!ReadFile(instance.pipe, instance.buffer, sizeof instance.buffer, nullptr, &instance.overlapped) &&
            GetLastError() != ERROR_IO_PENDING) {
            DisconnectNamedPipe(instance.pipe);
            accept(instance);
        }
    }
    for (Instance& instance : instances) {
        CloseHandle(instance.pipe);
        CloseHandle(instance.overlapped.hEvent);
    }
}

// Four clients write their messages; returns the seconds until the server has them all.
double Run(const wchar_t* pipeName, long perClient, std::atomic<long>& received) {
    received = 0;
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c) {
        clients.emplace_back([&] {
            HANDLE pipe = INVALID_HANDLE_VALUE;
            while ((pipe = CreateFileW(pipeName, GENERIC_WRITE | FILE_READ_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0,
                                       nullptr)) == INVALID_HANDLE_VALUE) {
                Sleep(1);
            }
            DWORD mode = PIPE_READMODE_MESSAGE;
            SetNamedPipeHandleState(pipe, &mode, nullptr, nullptr);
            const DWORD bytes = static_cast<DWORD>((kMessage.size() + 1) * sizeof(wchar_t));
            for (long i = 0; i < perClient; ++i) {
                DWORD written = 0;
                WriteFile(pipe, kMessage.c_str(), bytes, &written, nullptr);
            }
            FlushFileBuffers(pipe);
            CloseHandle(pipe);
        });
    }
    for (auto& client : clients) {
        client.join();
    }
    while (received.load() < perClient * kClients) {
        Sleep(1);
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

struct Figures {
    double min, median;
};
Figures Summarise(std::vector<double> times) {
    std::sort(times.begin(), times.end());
    return {times.front(), times[times.size() / 2]};
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    const long perClient = argc > 1 ? wcstol(argv[1], nullptr, 10) : 20000;
    const int runs = std::max(5, argc > 2 ? _wtoi(argv[2]) : 5);

    HANDLE stopServer = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    CountingPipe server(nullptr, stopServer);
    std::thread serverThread([&] { server.Serve(kServerPipe, L"set-up failed\n"); });

    HANDLE stopBare = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::atomic<long> bareReceived{0};
    std::thread bareThread([&] { BareServer(stopBare, bareReceived); });

    // The two servers take turns, so that both see the machine alike.
    std::vector<double> bareTimes, productTimes;
    for (int run = 0; run < runs; ++run) {
        bareTimes.push_back(Run(kBarePipe, perClient, bareReceived));
        productTimes.push_back(Run(kServerPipe, perClient, server.received));
    }
    const Figures bare = Summarise(bareTimes);
    const Figures product = Summarise(productTimes);
    SetEvent(stopServer);
    SetEvent(stopBare);
    serverThread.join();
    bareThread.join();

    const double messages = static_cast<double>(perClient) * kClients;
    wprintf(L"messages: %ld from each of %d clients, %zu bytes each, %d runs each\n", perClient, kClients,
            (kMessage.size() + 1) * sizeof(wchar_t), runs);
    wprintf(L"  bare overlapped server   min %.3f s  median %.3f s  (%.0f messages/s at the median)\n", bare.min,
            bare.median, messages / bare.median);
    wprintf(L"  companion pipe server    min %.3f s  median %.3f s  (%.0f messages/s at the median)\n", product.min,
            product.median, messages / product.median);
    wprintf(L"pipe: pipe=%.2f\n", bare.median / product.median);
    return 0;
}
