/* Symbol tables: symbols that are found by name, each with a list of attributes. An attribute is
 * one word, which may be an address, with or without a name.
 *   Errors   an operation that is given a table that does not exist reports error 45 and does
 *            nothing; it returns what means "not found".
 *   Memory   names are copied. What an attribute's data points to is the caller's.
 *   Threads  tables may come and go in any thread; the contents of one table are for one thread at
 *            a time, so the owner of a table that is shared holds a lock of its own. */
#pragma once

#include <ka/base.h>

KA_BEGIN_DECLS

typedef struct ka_symbol ka_symbol;

/* Sets up the set of tables; later calls do nothing. Before it every table number is invalid. */
void ka_sym_init(void);
/* Deletes all tables and takes the set down. */
void ka_sym_exit(void);

/* Makes an empty table. Returns its number, from 0 on; a number that became free is used again. -1
 * after error 45 before ka_sym_init. */
int ka_sym_create_symboltable(const char* name);
/* The lowest number of a table of that name, -1: none. */
int ka_sym_search_symboltable(const char* name);
void ka_sym_delete_symboltable(int table);
void ka_sym_delete_all_symboltables(void);

/* Adds a symbol without attributes. Several symbols may have the same name: every operation that
 * takes a name means the one added last, which hides the others until it is deleted.
 *   Returns  1 when there was a symbol of that name already, else 0. */
int ka_sym_create_symbol(int table, const char* name);
/* Deletes the symbol with its attributes. Returns 1, or 0 when there is none of that name. */
int ka_sym_delete_symbol(int table, const char* name);
void ka_sym_delete_symbols(int table); /* all of the table */

/* The symbol, null: none. The address stays the same until the symbol is deleted. The second form
 * looks into the first table of the name `table_name`. */
const ka_symbol* ka_sym_lookup_symbol(int table, const char* name);
const ka_symbol* ka_sym_lookup_symbol_by_name(const char* table_name, const char* name);

/* Makes room for `count` more attributes. Returns 1, or 0 after a warning: no such symbol. */
int ka_sym_allocate_attributes(int table, const char* symbol, int count);
/* Appends an attribute; a null `name` gives it none. Returns its index, or -1 after warning 9: no
 * such symbol. */
int ka_sym_add_attribute(int table, const char* symbol, const char* name, uintptr_t data);

/* The data of an attribute, 0 when the symbol has none of that index or name. Of several with the
 * same name the one with the lowest index counts, here and below. */
uintptr_t ka_sym_lookup_attribute(int table, const char* symbol, int index);
uintptr_t ka_sym_lookup_attribute_by_name(int table, const char* symbol, const char* name);
/* The index of an attribute, -1: none. */
int ka_sym_attribute_index(int table, const char* symbol, const char* name);

/* Replaces the data. Returns 1, or 0: no such symbol (after a warning) or attribute. */
int ka_sym_edit_attribute(int table, const char* symbol, int index, uintptr_t data);
int ka_sym_edit_attribute_by_name(int table, const char* symbol, const char* name, uintptr_t data);
/* Gives an attribute another name, null: none. Returns 1, or 0: no such symbol or attribute. */
int ka_sym_rename_attribute(int table, const char* symbol, int index, const char* name);

/* Deletes an attribute; those after it move one index down. Returns 1, or 0: no such symbol or
 * attribute, with warning 11 in the first form, with a warning about a missing symbol in the
 * second. */
int ka_sym_delete_attribute(int table, const char* symbol, int index);
int ka_sym_delete_attribute_by_name(int table, const char* symbol, const char* name);

/* Calls the function with every symbol's name and the data of its first attribute, 0 without one.
 * The order is that of the hash table. The function may delete the symbol it is called with; other
 * changes of the table's symbols have to wait until the end. */
typedef void (*ka_sym_function)(const char* name, uintptr_t data, void* argument);
void ka_sym_iterate_symbols(int table, ka_sym_function function, void* argument);

/* Prints the table's symbols with their attributes, then all attributes by data,
 * as debug messages. */
void ka_sym_dump(int table);

KA_END_DECLS
