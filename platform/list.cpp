// Lists: doubly linked, the links after the part of a node that callers see.
#include <cstdlib>

#include "qmx_list.h"

namespace {

struct Node {
  QMXListNode seen;  // first: a node's address is the address of what callers see of it
  Node* previous;
  Node* next;
};

Node* whole(QMXListNode* node) { return reinterpret_cast<Node*>(node); }
QMXListNode* seen(Node* node) { return reinterpret_cast<QMXListNode*>(node); }

}  // namespace

struct QMXList {
  Node* head;
  Node* tail;
};

QMXList* QMX_ListCreate(void) { return static_cast<QMXList*>(std::calloc(1, sizeof(QMXList))); }

QMXListNode* QMX_List_Node_new(void) { return seen(static_cast<Node*>(std::calloc(1, sizeof(Node)))); }

void QMX_ListAddTail(QMXList* list, QMXListNode* added) {
  Node* const node = whole(added);
  node->previous = list->tail;
  node->next = nullptr;
  (list->tail != nullptr ? list->tail->next : list->head) = node;
  list->tail = node;
}

QMXListNode* QMX_ListGetHead(QMXList* list) { return seen(list->head); }

QMXListNode* QMX_ListGetNext(QMXList*, QMXListNode* node) { return seen(whole(node)->next); }

void QMX_ListDel(QMXList* list, QMXListNode* removed) {
  Node* const node = whole(removed);
  (node->previous != nullptr ? node->previous->next : list->head) = node->next;
  (node->next != nullptr ? node->next->previous : list->tail) = node->previous;
}

void QMX_List_Node_delete(QMXListNode* node) { std::free(node); }

void QMX_ListDestroy(QMXList* list) { std::free(list); }
