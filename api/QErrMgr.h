// SPDX-License-Identifier: MIT
// The process-wide last error: one code for the whole process, the most recent
// setter wins.
#pragma once

#include <pthread.h>

class QErrMgr {
public:
  static QErrMgr *getInstance();
  static void destroyInstance();

  void setLastError(int code);
  int getLastError();
  const char *getLastErrorStr();

  static const char *messageFor(int code);

  QErrMgr(const QErrMgr &) = delete;
  QErrMgr &operator=(const QErrMgr &) = delete;

private:
  QErrMgr();
  ~QErrMgr();

  pthread_mutex_t mutex;
  int lastError = 0;
};

struct QErrInfoMgr {
  static QErrMgr *getinstance() { return QErrMgr::getInstance(); }
};

// Shorthand used throughout the drivers.
inline void setLastError(int code) { QErrInfoMgr::getinstance()->setLastError(code); }
