/* Scene database: the element store of the rendering system. */
#pragma once

#include <ka/base.h>

KA_BEGIN_DECLS

/* Creates the locks of the store. */
void ka_db_init(void);
/* Deletes them. */
void ka_db_exit(void);

/* Print, as information, the headings of the elements by module and by type, and of the list of all
 * elements. Parts of the memory manager's post-mortem from ka_db_init to ka_db_exit. */
void ka_db_summary(void);
void ka_db_dump(void);

KA_END_DECLS
