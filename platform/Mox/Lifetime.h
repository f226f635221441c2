/// @file
/// Marks functions whose result refers to an object that they do not keep.
#pragma once

/// After a parameter, or after the qualifiers of a member function for the object itself: the
/// result refers to it, so clang warns of a result that outlives a temporary. Other compilers
/// ignore the mark.
#if defined(__has_cpp_attribute) && __has_cpp_attribute(clang::lifetimebound)
#define MOX_LIFETIME_BOUND [[clang::lifetimebound]]
#else
#define MOX_LIFETIME_BOUND
#endif
