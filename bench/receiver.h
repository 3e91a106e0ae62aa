// What stands where the management agent would: takes each event as fast as it can and keeps nothing.
#ifndef BENCH_RECEIVER_H
#define BENCH_RECEIVER_H

class Receiver {
public:
    Receiver(); // in the run directory; throws std::system_error
    ~Receiver();
    Receiver(const Receiver &) = delete;
    Receiver &operator=(const Receiver &) = delete;

    // Waits for one event and reads it to its end. Throws std::runtime_error when none comes.
    void Take() const;

private:
    int mFd;
};

#endif
