// qor/lst.h -- doubly linked lists with the classic RTOS list-library semantics.
//
// A LIST holds a count and a NODE whose next/previous fields are the first
// and last node. Nodes are embedded at the start of the caller's records.
// lstFree() releases every node with free(), so it is only for lists whose
// nodes came from malloc(); lists of pool blocks are emptied by the owner.
#pragma once

struct NODE {
    NODE* next;
    NODE* previous;
};

struct LIST {
    NODE node;  // node.next = first, node.previous = last
    int count;
};

void lstInit(LIST* list);
void lstAdd(LIST* list, NODE* node);      // append at the tail
void lstDelete(LIST* list, NODE* node);   // unlink; the node must be in the list
NODE* lstFirst(LIST* list);               // null when empty
NODE* lstLast(LIST* list);
NODE* lstNext(NODE* node);                // null after the last
NODE* lstPrevious(NODE* node);
int lstCount(LIST* list);
void lstFree(LIST* list);                 // free() every node, leave the list empty
