/// @file export.h
/// @brief The mark of what leaves the shared library.
#ifndef ORBAOAUTH2SESSION_EXPORT_H
#define ORBAOAUTH2SESSION_EXPORT_H

/// @brief Marks a class or function as part of the public interface; everything else stays hidden.
#define ORBA_OAUTH2SESSION_API __attribute__((visibility("default")))

#endif
