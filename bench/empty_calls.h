#pragma once

// The lowest descriptor on which the empty calls do nothing.
inline constexpr int kEmptyFrom = 600;
