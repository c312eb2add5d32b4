// The rows of the message queues. A contestant copies messages of one size in and out, holds
// several of them, and makes the receiver wait for one and the sender for space. It lives as long
// as one run.
#pragma once

#include "bench.h"

#include <cstring>

constexpr int QUEUE_CAPACITY = 20;

template <class Queue, size_t size> void send_and_receive(benchmark::State& state)
{
    Queue queue(size);
    char sent[size];
    char received[size];

    memset(sent, 'm', size);
    memset(received, 0, size);
    for (auto _ : state) {
        queue.send(sent);
        queue.receive(received);
    }
    if (memcmp(sent, received, size) != 0) {
        state.SkipWithError("the message did not arrive whole");
    }
}

template <class Queue> void queue_hand_over(benchmark::State& state)
{
    constexpr size_t size = 16;
    Queue there(size);
    Queue back(size);
    char sent[size] = "fifteen letters";
    char received[size] = "";
    char on_its_way[size] = "";

    round_trips(
        state,
        [&] {
            there.send(sent);
            back.receive(received);
        },
        [&] { there.receive(on_its_way); }, [&] { back.send(on_its_way); });
    if (memcmp(sent, received, size) != 0) {
        state.SkipWithError("the message did not arrive whole");
    }
}

// One message at a time, to whichever of the waiting threads takes it, and its answer.
template <class Queue> void queue_receivers(benchmark::State& state)
{
    constexpr size_t size = 16;
    Queue there(size);
    Queue back(size);
    char message[size] = "fifteen letters";
    std::atomic<bool> last = false;
    std::vector<std::thread> receivers;

    for (int64_t i = 0; i < state.range(0); i++) {
        receivers.emplace_back([&] {
            char mine[size];
            for (bool leave = false; !leave;) {
                there.receive(mine);
                leave = last.load();
                back.send(mine);
            }
        });
    }
    const auto there_and_back = [&] {
        there.send(message);
        back.receive(message);
    };
    for (int64_t i = 0; i < 2 * state.range(0); i++) { // till they all wait
        there_and_back();
    }
    for (auto _ : state) {
        there_and_back();
    }
    last = true;
    for (int64_t i = 0; i < state.range(0); i++) {
        there_and_back();
    }
    for (std::thread& receiver : receivers) {
        receiver.join();
    }
}

// A queue of one message that many threads fill as fast as it is emptied.
template <class Queue> void queue_senders(benchmark::State& state)
{
    constexpr size_t size = 16;
    Queue queue(size, 1);
    char message[size] = "";
    std::atomic<bool> last = false;
    std::vector<std::thread> senders;

    for (int64_t i = 0; i < state.range(0); i++) {
        senders.emplace_back([&] {
            char mine[size] = "more";
            while (!last.load()) {
                queue.send(mine);
            }
            strcpy(mine, "farewell");
            queue.send(mine);
        });
    }
    for (int64_t i = 0; i < 2 * state.range(0); i++) {
        queue.receive(message);
    }
    for (auto _ : state) {
        queue.receive(message);
    }
    last = true;
    for (size_t left = senders.size(); left > 0;) {
        queue.receive(message);
        left -= strcmp(message, "farewell") == 0 ? 1 : 0;
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
}

#define QUEUE_ROWS(type, name)                                                                     \
    BENCHMARK(send_and_receive<type, 16>)->Name("queue.16/" name);                                 \
    BENCHMARK(send_and_receive<type, 1024>)->Name("queue.1024/" name);                             \
    BENCHMARK(queue_hand_over<type>)                                                               \
        ->Name("queue.handover/" name)                                                             \
        ->MeasureProcessCPUTime()                                                                  \
        ->UseRealTime()

#define QUEUE_WAITING_ROWS(type, name)                                                             \
    BENCHMARK(queue_receivers<type>)                                                               \
        ->Name("queue.receivers/" name)                                                            \
        ->Arg(1)                                                                                   \
        ->Arg(8)                                                                                   \
        ->Arg(64)                                                                                  \
        ->MeasureProcessCPUTime()                                                                  \
        ->UseRealTime();                                                                           \
    BENCHMARK(queue_senders<type>)                                                                 \
        ->Name("queue.senders/" name)                                                              \
        ->Arg(1)                                                                                   \
        ->Arg(8)                                                                                   \
        ->Arg(64)                                                                                  \
        ->MeasureProcessCPUTime()                                                                  \
        ->UseRealTime()
