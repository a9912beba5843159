// lst.cpp -- the doubly linked list library.
#include "qor/lst.h"

#include <cstdlib>

void lstInit(LIST* list) {
    list->node.next = nullptr;
    list->node.previous = nullptr;
    list->count = 0;
}

void lstAdd(LIST* list, NODE* node) {
    node->next = nullptr;
    node->previous = list->node.previous;
    if (list->node.previous)
        list->node.previous->next = node;
    else
        list->node.next = node;
    list->node.previous = node;
    ++list->count;
}

void lstDelete(LIST* list, NODE* node) {
    if (node->previous)
        node->previous->next = node->next;
    else
        list->node.next = node->next;
    if (node->next)
        node->next->previous = node->previous;
    else
        list->node.previous = node->previous;
    node->next = node->previous = nullptr;
    --list->count;
}

NODE* lstFirst(LIST* list) { return list->node.next; }
NODE* lstLast(LIST* list) { return list->node.previous; }
NODE* lstNext(NODE* node) { return node->next; }
NODE* lstPrevious(NODE* node) { return node->previous; }
int lstCount(LIST* list) { return list->count; }

void lstFree(LIST* list) {
    NODE* n = list->node.next;
    while (n) {
        NODE* next = n->next;
        std::free(n);
        n = next;
    }
    lstInit(list);
}
