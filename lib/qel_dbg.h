// Debug levels and the small text tables for levels and TIPC errors. Any thread.
#ifndef QEL_DBG_H
#define QEL_DBG_H

#include <cstdint>

// The mask of a level: 15 for 4 ("all"), else 1 << level; 0 from level 32 on.
uint32_t qel_dbg_get_level_value(uint32_t level) noexcept;

// Switches a level of this process's debug mask on or off; levels above 4 change nothing.
void qel_dbg_update_level(uint8_t on, uint32_t level) noexcept;

// "none" for a @mask of 0; otherwise the words of the bits set in this process's own debug mask, whatever
// @mask's bits are. Writes at most 24 bytes into @buf, returns a pointer into it.
const char *qel_get_dbg_status_str(uint32_t mask, char *buf) noexcept;

// The text of the error code in a returned message.
const char *qel_tipc_err_string(uint32_t code) noexcept;

#endif
