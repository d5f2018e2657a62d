// Byte offsets of the container fields that emitted code and assembly address. hash_table.h and linked_pool.h tie each
// offset to its field. Assembly includes this file too, so only preprocessor constants may stand here.
#pragma once

#define HASH_TABLE_SIZE_OFFSET 0
#define HASH_TABLE_COLLISIONS_OFFSET 4
#define HASH_TABLE_COUNT_OFFSET 8
#define HASH_TABLE_ENTRIES_OFFSET 16

#define HASH_ENTRY_KEY_OFFSET 0
#define HASH_ENTRY_VALUE_OFFSET 8
#define HASH_ENTRY_BYTES 16

#define LINKED_POOL_FREE_HEAD_OFFSET 0
#define LINKED_POOL_CAPACITY_OFFSET 8
#define LINKED_POOL_RECORDS_OFFSET 16

#define LINKED_RECORD_NEXT_OFFSET 0
#define LINKED_RECORD_WORD_OFFSET 8
#define LINKED_RECORD_BYTES 16
