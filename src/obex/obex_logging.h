// SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
// SPDX-License-Identifier: MIT

#ifndef OBEX_LOGGING_H
#define OBEX_LOGGING_H

#include <QLoggingCategory>

// Info and above are on by default: each push is logged as it is accepted, published or
// dropped. QT_LOGGING_RULES can switch lines off.
Q_DECLARE_LOGGING_CATEGORY(lcObexAgent)

#endif // OBEX_LOGGING_H
