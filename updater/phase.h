#pragma once

#include <QObject>

// The stages of a run, as the window's step indicator shows them. QML reads
// them as Phase.Connecting … Phase.Done (registerPhaseType, in the UI library).
namespace Phase {
Q_NAMESPACE

enum Value : int {
    Failed = -1,
    Connecting = 0,
    Downloading = 1,
    Extracting = 2,
    Installing = 3,
    Done = 4,
};
Q_ENUM_NS(Value)

// Handed to postState by a report that must not move the step indicator.
constexpr int Unchanged = -1000;
} // namespace Phase
