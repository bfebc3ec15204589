#ifndef SITE_PROC_H
#define SITE_PROC_H

namespace tov_proc {

void Sleep(unsigned milliseconds);

}  // namespace tov_proc

#endif
