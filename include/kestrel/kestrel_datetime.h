/* KESTREL procedural interface: dates, times, string helpers and soundex.
 * Included by kestrel/kestrel.h.
 *
 * Dates exist in three forms: a date string in one of the date styles below,
 * three integers (year, month, day), and a long date, a day number on the
 * proleptic Gregorian calendar with 0001-01-01 as day 1 (valid: 1..3652059,
 * the last being 9999-12-31).  Table date fields hold style 15 (yyyymmdd).
 *
 * Threads: the month-length table, the default date style and the soundex
 * result are process-wide and unprotected, like the rest of the library's
 * state; callers make one call into the library at a time. */
#ifndef KESTREL_DATETIME_H
#define KESTREL_DATETIME_H

#include "kestrel/kestrel_frame.h"

KESTREL_EXTERN_C_BEGIN

/* ---- Date styles ---------------------------------------------------------
 * Two-digit styles print the year modulo 100 and read a year below 100 as
 * 19yy (there is no century window).  Style numbers 1, 14, 17 and 18 have no
 * format: DBSetDefaultDateStyle accepts them, the conversions refuse them. */
typedef enum DBDateType {
  DB_DATE_GREGORIAN = 2,  /* "Gregorian (mm/dd/yy)"   mm/dd/yy   */
  DB_DATE_GREGORIAN4 = 3, /* "Gregorian (mm/dd/yyyy)" mm/dd/yyyy */
  DB_DATE_ENSI = 4,       /* "ENSI (yy.mm.dd)"        yy.mm.dd   */
  DB_DATE_ENSI4 = 5,      /* "ENSI (yyyy.mm.dd)"      yyyy.mm.dd */
  DB_DATE_GERMAN = 6,     /* "German (dd.mm.yy)"      dd.mm.yy   */
  DB_DATE_GERMAN4 = 7,    /* "German (dd.mm.yyyy)"    dd.mm.yyyy */
  DB_DATE_BRITISH = 8,    /* "British (dd/mm/yy)"     dd/mm/yy   */
  DB_DATE_BRITISH4 = 9,   /* "British (dd/mm/yyyy)"   dd/mm/yyyy */
  DB_DATE_FRENCH = 10,    /* "French (dd/mm/yy)"      dd/mm/yy   */
  DB_DATE_FRENCH4 = 11,   /* "French (dd/mm/yyyy)"    dd/mm/yyyy */
  DB_DATE_ITALIAN = 12,   /* "Italian (dd-mm-yy)"     dd-mm-yy   */
  DB_DATE_ITALIAN4 = 13,  /* "Italian (dd-mm-yyyy)"   dd-mm-yyyy */
  DB_DATE_DBASE = 15,     /* "dBASE (yyyymmdd)"       yyyymmdd (table fields) */
  DB_DATE_DMY = 16,       /* "DMY (ddmmyy)"           ddmmyy     */
  DB_DATE_JULIAN = 19     /* "Julian (yyyy/ddd)"      yyyy/ddd (day of the year) */
} DBDateType;

#define DB_DATE_STYLE_MIN 1  /* lowest number DBSetDefaultDateStyle accepts */
#define DB_DATE_STYLE_MAX 19 /* highest number DBSetDefaultDateStyle accepts */

/* Time styles. */
#define DB_TIME_HHMMSS 1 /* "hh:mm:ss" */
#define DB_TIME_HHMM 2   /* "hhmm" */

/* Buffer sizes (with the terminating zero) that always suffice. */
#define DB_DATE_STR_SIZE 11  /* a date in any style */
#define DB_TIME_STR_SIZE 9   /* a time in any style */
#define DB_DATE_NAME_SIZE 32 /* a day, month or date style name */
#define DB_SOUNDEX_SIZE 5    /* four characters and a zero */

#define DB_LONG_DATE_MIN 1       /* 0001-01-01 */
#define DB_LONG_DATE_MAX 3652059 /* 9999-12-31 */

/* ---- Calendar ------------------------------------------------------------- */
/* 1 when year is a leap year, else 0.  Also sets February of the shared
 * month-length table to 29 or 28.  Never sets the error code. */
KESTREL_API int32_t DBIsLeapYear(int32_t year);
KESTREL_API int32_t DBDaysInMonth(int32_t* days, int32_t year, int32_t month);
KESTREL_API int32_t DBDate3ToLong(int32_t* longDate, int32_t year, int32_t month, int32_t day);
KESTREL_API int32_t DBLongDateTo3(int32_t* year, int32_t* month, int32_t* day, int32_t longDate);
/* index 0 = Sunday .. 6 = Saturday. */
KESTREL_API int32_t DBLongDateToDayOfWeek(int32_t* index, int32_t longDate);
/* buffer: DB_DATE_NAME_SIZE bytes (the name and a zero). */
KESTREL_API int32_t DBDayOfWeek(char* buffer, int32_t index);
KESTREL_API int32_t DBMonthToStr(char* buffer, int32_t month);

/* ---- Date strings ---------------------------------------------------------
 * Every call below that writes a date text into buffer needs DB_DATE_STR_SIZE
 * bytes; DBStrDateToMonth and DBStrDateToDayOfWeek write a name and need
 * DB_DATE_NAME_SIZE bytes. */
KESTREL_API int32_t DBDate3ToStr(char* buffer, int32_t style, int32_t year, int32_t month,
                                 int32_t day);
/* Returns the warning 202 (and three zeros) for a blank date. */
KESTREL_API int32_t DBStrDateTo3(int32_t* year, int32_t* month, int32_t* day, const char* string,
                                 int32_t style);
KESTREL_API int32_t DBSetDefaultDateStyle(int32_t style);
/* Stores the default style and copies its name into buffer (DB_DATE_NAME_SIZE
 * bytes); the name is empty for the numbers without a format. */
KESTREL_API int32_t DBGetDefaultDateStyle(int32_t* style, char* buffer);

/* Compositions over DBStrDateTo3. */
KESTREL_API int32_t DBIsValidDateStr(const char* string, int32_t style);
/* 1 or 0, or the parse failure. */
KESTREL_API int32_t DBIsStrLeapYear(const char* string, int32_t style);
KESTREL_API int32_t DBDaysInMonthStr(int32_t* days, const char* string, int32_t style);
KESTREL_API int32_t DBConvertDateStr(char* buffer, int32_t toStyle, const char* string,
                                     int32_t fromStyle);
KESTREL_API int32_t DBStrDateToLong(int32_t* longDate, const char* string, int32_t style);
KESTREL_API int32_t DBLongDateToStr(char* buffer, int32_t style, int32_t longDate);
KESTREL_API int32_t DBStrDateToMonth(char* buffer, const char* string, int32_t style);
KESTREL_API int32_t DBStrDateToIntDayWeek(int32_t* index, const char* string, int32_t style);
KESTREL_API int32_t DBStrDateToDayOfWeek(char* buffer, const char* string, int32_t style);
KESTREL_API int32_t DBDaysBetweenStr(int32_t* days, const char* string1, int32_t style1,
                                     const char* string2, int32_t style2);
/* Today's date in the style. */
KESTREL_API int32_t DBGetDateStr(char* buffer, int32_t style);

/* ---- Clock (local time) --------------------------------------------------- */
KESTREL_API int32_t DBGetDate3(int32_t* year, int32_t* month, int32_t* day, int32_t* weekday);
/* hundredths is always 0. */
KESTREL_API int32_t DBGetTime3(int32_t* hours, int32_t* minutes, int32_t* seconds,
                               int32_t* hundredths);

/* ---- Times ----------------------------------------------------------------
 * DBTime3ToStr and DBGetTimeStr write into DB_TIME_STR_SIZE bytes. */
KESTREL_API int32_t DBTime3ToStr(char* buffer, int32_t style, int32_t hours, int32_t minutes,
                                 int32_t seconds);
KESTREL_API int32_t DBStrTimeTo3(int32_t* hours, int32_t* minutes, int32_t* seconds,
                                 const char* string, int32_t style);
KESTREL_API int32_t DBIsValidTimeStr(const char* string, int32_t style);
/* The current time in the style. */
KESTREL_API int32_t DBGetTimeStr(char* buffer, int32_t style);
KESTREL_API int32_t DBSecondsBetweenStr(int32_t* seconds, const char* string1, int32_t style1,
                                        const char* string2, int32_t style2);

/* ---- String helpers ------------------------------------------------------- */
/* In place: cuts text after n characters when n is not above its length. */
KESTREL_API char* DBstrleft(char* text, int32_t n);
/* New buffer (free with DBFreeMemory) with the last min(n, length) characters. */
KESTREL_API char* DBstrright(const char* text, int32_t n);
/* New buffer (free with DBFreeMemory) with count characters from the 1-based
 * position start; null when start is beyond the text. */
KESTREL_API char* DBstrmid(const char* text, int32_t start, int32_t count);
/* In place: remove white space at both ends, at the start, at the end. */
KESTREL_API char* DBstrtrim(char* text);
KESTREL_API char* DBstrltrim(char* text);
KESTREL_API char* DBstrrtrim(char* text);
/* Phonetic code: four characters in a library-owned buffer that the next
 * call overwrites. */
KESTREL_API const char* DBSoundex(const char* text);

KESTREL_EXTERN_C_END

#endif
