#pragma once

#include <array>

/// An interface class in which readers are found: which driver serves its devices, and what must stand in their paths.
struct ReaderClass {
    const char* guid;
    const char* filter;  ///< Null: every device of the class is a reader.
    bool isTama;         ///< Else an MF RC500.
};

/// In the order of the search.
inline constexpr std::array<ReaderClass, 5> kReaderClasses{{
    {"fe2f504b-5f97-4d4d-873d-559e49009dc6", nullptr, true},
    {"61217dae-665d-424b-baa9-99897897d6ae", "vid_04cc&pid_0531", true},
    {"7481e7e3-b3da-11d4-b1f2-00d05913aea8", "vid_04cc&pid_0531", true},
    {"a518e23b-d631-426f-b8f0-e17a61065f1d", nullptr, false},
    {"894a7461-a033-11d2-821e-444553540000", nullptr, false},
}};
