// The rows of the message queues. A contestant copies messages of one size in and out, holds
// several of them, and makes the receiver wait for one. It lives as long as one run, so registries
// are short.
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

#define QUEUE_ROWS(type, name)                                                                     \
    BENCHMARK(send_and_receive<type, 16>)->Name("queue.16/" name);                                 \
    BENCHMARK(send_and_receive<type, 1024>)->Name("queue.1024/" name);                             \
    BENCHMARK(queue_hand_over<type>)                                                               \
        ->Name("queue.handover/" name)                                                             \
        ->MeasureProcessCPUTime()                                                                  \
        ->UseRealTime()
