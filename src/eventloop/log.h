// The loop's failures, for the platform's logging library.
#ifndef TESSRA_EVENTLOOP_LOG_H
#define TESSRA_EVENTLOOP_LOG_H

namespace tessra {

// The step of a start that failed.
struct StartFailure {
    const char* text = nullptr;  // Null if no step has failed.
    int line = 0;
};

// Returns false, the result of the step.
inline bool note_failure(StartFailure& failure, const char* text, int line) {
    failure = {text, line};
    return false;
}

void log_start_failure(const StartFailure& failure);
void log_select_failure(int error, int line);

}  // namespace tessra

#endif
