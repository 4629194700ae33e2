/* Message log: every component reports through these functions. A line carries the module that
 * issued it, host, thread, level and, for numbered messages, a six-digit code; it goes to standard
 * error, to an installed handler, or to the file that the environment variable KA_LOGFILE names. */
#pragma once

#include <ka/base.h>

KA_BEGIN_DECLS

/* Levels, bits of the mask of ka_set_verbosity. The default mask shows the first three. */
enum ka_level {
  KA_FATAL = 1,
  KA_ERROR = 2,
  KA_WARNING = 4,
  KA_INFO = 8,
  KA_PROGRESS = 16,
  KA_DEBUG = 32,
  KA_VDEBUG = 64
};

/* Bits of a module's subverbosity mask that this library looks at. */
enum ka_subverbosity {
  KA_SUBVERB_PROGRESS = 0x2,    /* the image library shows which textures it maps or caches */
  KA_SUBVERB_TIME = 0x8,        /* ka_timing prints */
  KA_SUBVERB_FILES = 0x400,     /* the image library tells which files it opens */
  KA_SUBVERB_DEBUG = 0x800,     /* reports include their debug sections */
  KA_SUBVERB_MSGCODE = 0x1000,  /* numbered messages show their code */
  KA_SUBVERB_MSGTRANS = 0x2000, /* lines start with the transaction tag */
  KA_SUBVERB_DEFAULT = 0x107f
};

/* Message functions take a printf format and its arguments; the n-forms take a message number
 * first, whose last three digits become part of the code; 0 is that of a message without a number.
 *   Text     control characters but tabs become blanks; 300 characters or more keep their first and
 *            last 147, with "[...]" between. What passes 4095 characters is lost before that.
 *   Cost     a message whose level is off costs one test; nothing is formatted.
 *   Threads  any; lines of several threads do not mix. errno stays as it is. */

/* Fatal messages always show, are also written to the log file, and end the process
 * with exit status 1. */
KA_NORETURN void ka_fatal(const char* format, ...) KA_PRINTF(1, 2);
KA_NORETURN void ka_nfatal(int number, const char* format, ...) KA_PRINTF(2, 3);
void ka_error(const char* format, ...) KA_PRINTF(1, 2);
void ka_nerror(int number, const char* format, ...) KA_PRINTF(2, 3);
void ka_warning(const char* format, ...) KA_PRINTF(1, 2);
void ka_nwarning(int number, const char* format, ...) KA_PRINTF(2, 3);
void ka_info(const char* format, ...) KA_PRINTF(1, 2);
void ka_progress(const char* format, ...) KA_PRINTF(1, 2);
void ka_debug(const char* format, ...) KA_PRINTF(1, 2);
void ka_vdebug(const char* format, ...) KA_PRINTF(1, 2);

/* Sets the mask of levels that are shown (bits of enum ka_level). Fatal messages show whatever it
 * holds. In the master of a network this and ka_set_subverbosity set all hosts. */
void ka_set_verbosity(uint32_t mask);
uint32_t ka_get_verbosity(void);

/* Sets the subverbosity mask of one module, or of all with module KA_NULL. Other numbers change
 * nothing. */
void ka_set_subverbosity(int module, uint32_t mask);
/* Returns the mask of a module, 0 to KA_MODULE_COUNT - 1. */
uint32_t ka_get_subverbosity(int module);
/* Gives every module the mask KA_SUBVERB_DEFAULT, once per process: at its start, or before the
 * first mask is set. Until then the masks are 0. */
void ka_lib_init_subverbosity(void);

/* Receives a line instead of standard error: its level bit, the whole line, its text alone, its
 * code. */
typedef void (*ka_error_callback)(uint32_t level, const char* line, const char* text, int code);
/* Installs the handler, null removes it. It is called by the thread that reports, several at the
 * same time, and not at all while KA_LOGFILE is set. A fatal line still shows on standard error
 * after the handler has seen it, and so does a line during which the handler was removed. Error 36
 * in a host of a network that is not its master: its lines go to the master. */
void ka_errorhandler(ka_error_callback handler);

/* Reads a list of message groups, as a command line has it, into a mask: names from "none",
 * "default", "all", "phase", "progress", "vprogress", "time", "scene", "memory", "render",
 * "vrender", "resources", "network", "files", "debug", "msgcode", "msgtrans" and "tessellate",
 * which may be abbreviated, or bit numbers (modulo 32), separated by commas. An item that starts
 * with "-", "!" or "~" is taken out again. Items count from left to right: "all,-files".
 *   Returns  1, or 0 after error 48 for an unknown name; what stood before it is in the mask. */
int ka_parse_subverbosity(uint32_t* mask, const char* text);

/* Switches colored lines on standard error: "on", "t..." and "1..." take the default colors,
 * "off", "f...", "0..." and "-..." switch them off. Any other text gives the colors of the levels
 * from fatal to the second debug level and of the end of the line, a letter of ".rgbcmyk" each; "."
 * is the terminal's own. Another letter leaves a place its default color after warning 18; a
 * double quote in front is skipped. */
void ka_set_colormessage(const char* text);
int ka_get_colormessage(void); /* 1: on, 0: off */
/* For platforms whose console has colors of its own; there is nothing to do on this one. */
void ka_set_default_console_colour(void);

/* Switches the forwarding of lines to the master of a network of hosts. A line that cannot be sent
 * goes to the log file: with the flag set, a stand-alone process shows only fatal lines on standard
 * error, and appends all that its mask lets through to the log file. */
void ka_toggle_netmessage(int flag);

/* What travels between the hosts of a network: a log line, or the settings of the master. Fields
 * are 32-bit and are in the sender's byte order. In a record of settings the masks of all modules
 * take the place of the text. */
typedef struct ka_message_record {
  int32_t kind;   /* KA_RECORD_LINE or KA_RECORD_SETTINGS */
  uint32_t level; /* of the line; the mask of levels in a record of settings */
  int32_t code;
  uint32_t world, session, transaction; /* tags */
  char prefix[40];
  char text[300];
} ka_message_record;
enum { KA_RECORD_LINE = 1, KA_RECORD_SETTINGS = 2 };

/* Receives a record from another host: shows its line, or takes over its settings, which the master
 * passes on to all hosts. The channel and the length are not looked at; `swap` not 0 says that the
 * sender has the other byte order. The record stays the caller's; its bytes are
 * swapped in place. */
void ka_lib_netmessage(int channel, ka_message_record* record, size_t length, int swap);
/* Sends this process's settings, and what its modules share, to a host that has just been connected. */
void ka_lib_hostcallback(int host);

/* The system's text for errno, or for an error number. The text lives until the calling thread asks
 * again. */
const char* ka_strerror(void);
const char* ka_nstrerror(int number);

/* Reports a failed assertion on standard error and in the log file, and aborts the process with
 * SIGABRT, if that does not end it with SIGKILL. Takes the place of the
 * system library's routine. */
#ifdef __cplusplus
void __assert(const char* expression, const char* file, int line) noexcept KA_NORETURN_ATTRIBUTE;
#else
void __assert(const char* expression, const char* file, int line) KA_NORETURN_ATTRIBUTE;
#endif

/* The names of the modules, KA_MODULE_COUNT of them; lines show the first four characters. */
extern const char* const ka_modname[KA_MODULE_COUNT];

KA_END_DECLS
