#pragma once

namespace tov_proc {

void Sleep(unsigned milliseconds);

}  // namespace tov_proc
