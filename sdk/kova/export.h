/*
 * What a platform library exports: the platform libraries are built with
 * hidden visibility, so exactly the declarations of the sdk headers, which
 * stand between KOVA_API_BEGIN and KOVA_API_END, form their interface to
 * each other, the server, tools and modules. Everything else in a library
 * stays inside it.
 */
#ifndef KOVA_EXPORT_H
#define KOVA_EXPORT_H

#if defined(__GNUC__)
#define KOVA_API_BEGIN _Pragma("GCC visibility push(default)")
#define KOVA_API_END _Pragma("GCC visibility pop")
#else
#define KOVA_API_BEGIN
#define KOVA_API_END
#endif

#endif
