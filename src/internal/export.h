// The mark of functions that other modules and programs call.
#ifndef TESSRA_INTERNAL_EXPORT_H
#define TESSRA_INTERNAL_EXPORT_H

// The device's build makes one program of a module's files (-fwhole-program, see CMakeLists.txt).
// The compiler then drops or inlines each function that has no such mark. Only GCC knows the mark.
#if defined(__GNUC__) && !defined(__clang__)
#define TESSRA_EXPORTED __attribute__((externally_visible))
#else
#define TESSRA_EXPORTED
#endif

#endif
