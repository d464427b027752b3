#include "common/LL.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace {

// The payload lies right behind its header.
void* payloadOf(s_list* link) {
    return link + 1;
}

s_list* linkOf(void* element) {
    return static_cast<s_list*>(element) - 1;
}

void report(const char* function, const char* problem) {
    std::fprintf(stderr, "In %s: %s \n", function, problem);
}

[[noreturn]] void endOutOfMemory(const char* function) {
    report(function, "malloc returned NULL");
    std::exit(-1);
}

} // namespace

void l_linit(s_list* link) {
    link->forward = link;
    link->backward = link;
}

void l_unlink(s_list* link) {
    link->forward->backward = link->backward;
    link->backward->forward = link->forward;
}

void linkBefore(s_list* anchor, s_list* link) {
    link->forward = anchor;
    link->backward = anchor->backward;
    anchor->backward->forward = link;
    anchor->backward = link;
}

void linkAfter(s_list* anchor, s_list* link) {
    linkBefore(anchor->forward, link);
}

t_LL ConsLL() {
    const t_LL list = static_cast<t_LL>(std::malloc(sizeof(s_LL)));
    if (list == nullptr) {
        endOutOfMemory("CreatLL"); // not this function's name: readers of the line know it so
    }
    return InitLL(list);
}

t_LL InitLL(t_LL list) {
    l_linit(&list->head);
    list->head.size = 0;
    return list;
}

int IsEmptyLL(t_LL list) {
    return list->head.forward == &list->head;
}

void* FirstElmLL(t_LL list) {
    return payloadOf(list->head.forward);
}

// Not run by a test: nothing in the module asks for a last element.
void* LastElmLL(t_LL list) {
    return payloadOf(list->head.backward);
}

void* NextElmLL(void* element) {
    return payloadOf(linkOf(element)->forward);
}

int IsElmLL(void* element) {
    return static_cast<int>(linkOf(element)->size);
}

void DelElmLL(void* element) {
    s_list* const link = linkOf(element);
    l_unlink(link);
    std::free(link);
}

t_LL EmptyLL(t_LL list) {
    for (s_list* link = list->head.forward; link != &list->head;) {
        s_list* const next = link->forward;
        std::free(link);
        link = next;
    }
    l_linit(&list->head);
    return list;
}

t_LL DestLL(t_LL list) {
    std::free(EmptyLL(list));
    return nullptr;
}

void* InsLastLLf(t_LL list, std::size_t size, const void* data) {
    return InsLLf(&list->head, size, data, linkBefore);
}

void* InsLLf(s_list* anchor, std::size_t size, const void* data, LinkFunction link) {
    if (size == 0) {
        report("InsLLf", "element with zero size");
        return nullptr;
    }
    // A size that no block can have is memory that cannot be had.
    const bool possible = size <= std::numeric_limits<std::size_t>::max() - sizeof(s_list);
    s_list* const created =
        possible ? static_cast<s_list*>(std::malloc(sizeof(s_list) + size)) : nullptr;
    if (created == nullptr) {
        endOutOfMemory("InsLLf");
    }
    link(anchor, created);
    std::memcpy(payloadOf(created), data, size);
    created->size = size;
    return payloadOf(created);
}
