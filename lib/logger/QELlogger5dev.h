#pragma once

#include "QELlogger5.h"
#include "QELlogger5_5424.h"
#include "QELlogger5_DEV.h"

/// A logger ready for use: owns its formatter and its sender, and writes lines of RFC 5424's shape
/// to the local system log's "/dev/log".
class QELlogger5dev : public QELlogger5 {
  public:
    /// Never fails: without a socket every statement fails, until `devSender` is opened again.
    QELlogger5dev(std::string_view host, std::string_view application);

    QELlogger5_5424 formatter5424; ///< makes the lines
    QELlogger5_DEV devSender;      ///< sends them
};
