#ifndef KIV_EXPORT_H
#define KIV_EXPORT_H

/// Marks a class or function as part of the shared library's interface. Everything without it stays inside.
#define KIV_EXPORT [[gnu::visibility("default")]]

#endif  // KIV_EXPORT_H
