/*
 * The collector the example collector driver sends to, made of the test's own
 * sockets (kept apart from the driver headers, which declare the byte-order
 * routines the socket headers declare too).
 */
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/* A UDP socket and a TCP listener on one loopback port, drained by a thread once started. */
struct CollectorPeer {
    int udp = -1, listener = -1, stream = -1;
    unsigned short port = 0;
    std::mutex lock;
    std::vector<std::string> datagrams;
    std::string bytes;
    std::atomic<bool> stop{false};
    std::thread reader;

    CollectorPeer();
    ~CollectorPeer();
    void Start();
    void CloseListener();
};

/* Sends `question` to the loopback port and returns the answer ("" after 10 s). */
std::string AskForAnswer(unsigned short port, const std::string &question);
