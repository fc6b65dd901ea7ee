/**
 * @file qmx_list.h
 * @brief Base library: lists of nodes that carry one data pointer each.
 *
 * A list is not locked: its user serialises the calls on it. None may be called from a signal handler.
 */
#ifndef QMX_LIST_H
#define QMX_LIST_H

#include "qmx_api.h"

typedef struct QMXList QMXList; /**< a list; opaque */

/** A list node. Nodes come from QMX_List_Node_new() only: what follows `data` is the base library's own. */
typedef struct QMXListNode {
  void* data; /**< the caller's pointer; neither read nor released by the list */
} QMXListNode;

/** @return a new empty list, which the caller releases with QMX_ListDestroy(), or null. */
QMX_BASE_API QMXList* QMX_ListCreate(void);

/**
 * @return a new unlinked node, its data null, which the caller releases with QMX_List_Node_delete(), or null.
 */
QMX_BASE_API QMXListNode* QMX_List_Node_new(void);

/**
 * Appends a node.
 *
 * @param list  the list
 * @param node  an unlinked node
 */
QMX_BASE_API void QMX_ListAddTail(QMXList* list, QMXListNode* node);

/**
 * @param list  the list
 * @return its first node, or null when it is empty.
 */
QMX_BASE_API QMXListNode* QMX_ListGetHead(QMXList* list);

/**
 * @param list  the list
 * @param node  a node of it
 * @return the node after `node`, or null when it is the last.
 */
QMX_BASE_API QMXListNode* QMX_ListGetNext(QMXList* list, QMXListNode* node);

/**
 * Unlinks a node; neither the node nor its data is released.
 *
 * @param list  the list
 * @param node  a node of it
 */
QMX_BASE_API void QMX_ListDel(QMXList* list, QMXListNode* node);

/**
 * Releases an unlinked node, not its data.
 *
 * @param node  the node
 */
QMX_BASE_API void QMX_List_Node_delete(QMXListNode* node);

/**
 * Releases an empty list.
 *
 * @param list  the list
 */
QMX_BASE_API void QMX_ListDestroy(QMXList* list);

#endif
