// A Qt object with one signal, in a separate header for Qt's code generator.
#pragma once

#include <QObject>

namespace Bench {

class QtSignal : public QObject {
    Q_OBJECT
  Q_SIGNALS:
    void emitted();
};

}  // namespace Bench
