// The queue, against an intrusive list whose operations are inlined into the caller. The queue's
// are calls into a shared object that also keep the owner of every link.
#include <urcu/list.h>
#include <memory>
#include <vector>

#include <qvcl/queue.h>

#include "bench/support.h"

namespace {

constexpr size_t kElements = 1000;

struct Element {
    CL_QueueLink link;
    cds_list_head node;
    uint64_t payload[3];
};

// Elements in an order that has nothing to do with their addresses, as a program has them.
struct Lists {
    std::vector<Element> elements = std::vector<Element>(kElements);
    CL_Queue queue;
    cds_list_head list;

    Lists() {
        CL_QUE_InitQT(&queue, offsetof(Element, link));
        CDS_INIT_LIST_HEAD(&list);
    }
    Element &at(size_t i) { return elements[i * 617 % kElements]; }
};

template <class Put, class Get>
auto fill_and_empty(Put put, Get get) {
    return [put, get](size_t n) {
        while (n-- != 0) {
            for (size_t i = 0; i < kElements; ++i)
                put(i);
            for (size_t i = 0; i < kElements; ++i)
                get(i);
        }
    };
}

bench::Comparison in_order() {
    auto lists = std::make_shared<Lists>();
    return {{bench::local(
                 "PutTail + GetTop",
                 fill_and_empty(
                     [lists](size_t i) { CL_QUE_PutTail(&lists->queue, &lists->at(i)); },
                     [lists](size_t) { benchmark::DoNotOptimize(CL_QUE_GetTop(&lists->queue)); })),
             bench::local("urcu list", fill_and_empty(
                                           [lists](size_t i) {
                                               cds_list_add_tail(&lists->at(i).node, &lists->list);
                                           },
                                           [lists](size_t) {
                                               cds_list_head *first = lists->list.next;
                                               benchmark::DoNotOptimize(first);
                                               cds_list_del(first);
                                           }))},
            {bench::times_of("the list", 2)}};
}

bench::Comparison any_order() {
    auto lists = std::make_shared<Lists>();
    const auto other = [](size_t i) { return i * 389 % kElements; };
    return {{bench::local(
                 "PutTail + GetData",
                 fill_and_empty([lists](size_t i) { CL_QUE_PutTail(&lists->queue, &lists->at(i)); },
                                [lists, other](size_t i) {
                                    CL_QUE_GetData(&lists->queue, &lists->at(other(i)));
                                })),
             bench::local(
                 "urcu list",
                 fill_and_empty(
                     [lists](size_t i) { cds_list_add_tail(&lists->at(i).node, &lists->list); },
                     [lists, other](size_t i) { cds_list_del(&lists->at(other(i)).node); }))},
            {bench::times_of("the list", 2)}};
}

}  // namespace

int main(int argc, char **argv) {
    bench::pin(bench::processor(1));
    bench::compare("1000 elements in, then out/first first", in_order);
    bench::compare("1000 elements in, then out/any order", any_order);
    return bench::run(argc, argv);
}
