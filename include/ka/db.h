/* Scene database: the element store of the rendering system. */
#pragma once

#include <ka/base.h>

KA_BEGIN_DECLS

/* Creates the locks of the store. */
void ka_db_init(void);
/* Deletes them. */
void ka_db_exit(void);

KA_END_DECLS
