// Doubly linked list of records copied by value.
//
// The list is circular around its head. Element pointers that the operations take and return point
// at the payload; its header lies just before it. Memory running out ends the process with a line
// on standard error, by policy. Passing what is not an element to NextElmLL or DelElmLL is
// undefined.
#pragma once

#include <cstddef>

struct s_list {
    s_list* forward;
    s_list* backward;
    std::size_t size; // bytes of the payload that follows; 0 marks the head, which ends a walk
};

struct s_LL {
    s_list head;
};
using t_LL = s_LL*;

// Puts a new link next to an anchor: how InsLLf inserts before or after it.
using LinkFunction = void (*)(s_list* anchor, s_list* link);

t_LL ConsLL();                  // a new empty list; release it with DestLL
t_LL InitLL(t_LL list);         // makes the head an empty list; returns it
int IsEmptyLL(t_LL list);       // non-zero when there is no element
void* FirstElmLL(t_LL list);    // the first element; of an empty list a non-element
void* LastElmLL(t_LL list);     // the last element, likewise; called by nobody here
void* NextElmLL(void* element); // the one after it; after the last a non-element
int IsElmLL(void* element);     // non-zero for an element, 0 for the head
void DelElmLL(void* element);   // unlinks and frees
t_LL EmptyLL(t_LL list);        // frees every element; returns the list
t_LL DestLL(t_LL list);         // frees everything; returns NULL

// Appends a copy of `size` bytes; returns the new element, or NULL when size is 0 (with a line on
// standard error).
void* InsLastLLf(t_LL list, std::size_t size, const void* data);

// The general insertion: `link` puts the new element's header next to `anchor`.
void* InsLLf(s_list* anchor, std::size_t size, const void* data, LinkFunction link);
void linkBefore(s_list* anchor, s_list* link);
void linkAfter(s_list* anchor, s_list* link); // for a caller's insertion; no caller here

void l_linit(s_list* link);  // both links of the link to itself
void l_unlink(s_list* link); // joins its neighbours
