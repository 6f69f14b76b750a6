/*
 * Configuration files: bracketed sections of "key = value" lines. Any thread; a fork must not happen during a call.
 * `file` is a fixed path; the platform puts its root in front. Section and key compare without regard to ASCII letter
 * case; values are bytes.
 */
#ifndef DIRWELL_PLATFORM_STRATA_CONFIG_H
#define DIRWELL_PLATFORM_STRATA_CONFIG_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Copies the value (or `fallback`, NULL counting as "") into `buffer` of `size` bytes, cut to size - 1 bytes and always
 * terminated. Returns the number of bytes copied. A missing or unreadable file, section or key gives the fallback.
 */
int Get_Private_Profile_String(const char *section, const char *key, const char *fallback, char *buffer, int size,
                               const char *file);

/* The value as a decimal integer (leading digits count, none give 0), or `fallback` when the key is missing. */
int Get_Private_Profile_Integer(const char *section, const char *key, int fallback, const char *file);

#ifdef __cplusplus
}
#endif
#endif
