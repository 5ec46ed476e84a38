// Tables of cases: after a model learned some events, is a probe the same
// behaviour (white) or a new one?
#ifndef ENGINE_LIB_SAME_CASES_H
#define ENGINE_LIB_SAME_CASES_H

#include <gtest/gtest.h>

#include "event_script.h"

namespace enginetest {

// A fresh model learns the lessons for a minute, then judges the probes:
// whether the last probe is white.
template <class Interface>
bool knows(const std::vector<std::string>& lessons, const std::vector<std::string>& probes) {
    auto engine = startedEngine<Interface>(1);
    feed(*engine, lessons);
    engine->elapseTime(60, 0);
    for (std::size_t i = 0; i + 1 < probes.size(); ++i) judgedBlack(*engine, *eventOf(engine.get(), probes[i]));
    return !judgedBlack(*engine, *eventOf(engine.get(), probes.back()));
}

// A table row: after learning, is the probe the same behaviour?
struct SameCase {
    const char* rule;
    std::vector<std::string> lessons;
    std::vector<std::string> probes;
    bool same;
};

template <class Interface>
void expectCases(const std::vector<SameCase>& cases) {
    for (const SameCase& c : cases) {
        EXPECT_EQ(knows<Interface>(c.lessons, c.probes), c.same)
            << c.rule << "\n  learned: " << c.lessons.back() << "\n  probe:   " << c.probes.back();
    }
}

}  // namespace enginetest

#endif
