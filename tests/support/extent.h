// How much of a long search runs.
#pragma once

// A search takes one of so many steps. Under a sanitizer each takes ten to thirty times as long.
#if defined(TSLB_SANITIZES_ADDRESS) || defined(TSLB_SANITIZES_THREAD)
inline constexpr int EVERY = 5;
#else
inline constexpr int EVERY = 1;
#endif
