#include "modsparse_ll.hpp"

namespace zendar {

llsparse::llsparse(std::int32_t dim1, std::optional<std::int32_t> dim2, bool lupperstorage, logger* unlog) {
    constructor_sub(dim1, dim2, lupperstorage, unlog);
}

void llsparse::constructor_sub(std::int32_t dim1, std::optional<std::int32_t> dim2, bool lupperstorage,
                               logger* unlog) {
    destroy();
    unlog_ = unlog;
    init("LINKED LIST", dim1, dim2.value_or(dim1));
    lupperstorage_ = lupperstorage;
    rows_.assign(static_cast<std::size_t>(dim1), ptrnode{});
}

llsparse llsparse::copy() const {
    return llsparse(*this);
}

void llsparse::destroy() {
    destroy_gen();
    rows_ = {};
    pool_ = {};
    in_order_ = true;
}

double llsparse::getmem() const {
    return static_cast<double>(rows_.size() * sizeof(ptrnode) + pool_.size() * sizeof(node)) + getmem_gen();
}

double llsparse::get(std::int32_t row, std::int32_t col) const {
    if (is_mirrored() && row > col) std::swap(row, col);
    if (!inside(row, col)) return 0.0;
    double sum = 0.0;
    for (std::int64_t k = rows_[row - 1].head; k != none; k = pool_[k].next)
        if (pool_[k].col == col) sum += pool_[k].value;
    return sum;
}

void llsparse::insert_behind(ptrnode& list, std::int64_t before, std::int32_t col, double value) {
    const std::int64_t number = std::ssize(pool_);
    const std::int64_t next = before == none ? list.head : pool_[before].next;
    pool_.push_back({col, value, next});
    if (before == none)
        list.head = number;
    else
        pool_[before].next = number;
    if (next == none) list.tail = number;
}

void llsparse::addtohead(std::int32_t row, std::int32_t col, double value) {
    if (!accepts(row, col)) return;
    ptrnode& list = rows_[row - 1];
    if (list.head != none && pool_[list.head].col <= col) in_order_ = false;
    insert_behind(list, none, col, value);
}

void llsparse::addtotail(std::int32_t row, std::int32_t col, double value) {
    if (!accepts(row, col)) return;
    ptrnode& list = rows_[row - 1];
    if (list.tail != none && pool_[list.tail].col >= col) in_order_ = false;
    insert_behind(list, list.tail, col, value);
}

void llsparse::addinorder(std::int32_t row, std::int32_t col, double value) {
    if (!accepts(row, col)) return;
    ptrnode& list = rows_[row - 1];
    std::int64_t before = none, at = list.head;
    if (in_order_ && list.tail != none && pool_[list.tail].col < col) {
        before = list.tail;
        at = none;
    }
    while (at != none && pool_[at].col < col) {
        before = at;
        at = pool_[at].next;
    }
    if (at != none && pool_[at].col == col)
        pool_[at].value += value;
    else
        insert_behind(list, before, col, value);
}

void llsparse::visit(const element_sink& sink) const {
    for (std::int32_t row = 1; row <= dim1_; ++row)
        for (std::int64_t k = rows_[row - 1].head; k != none; k = pool_[k].next)
            sink(row, pool_[k].col, pool_[k].value, k + 1);
}

void llsparse::multgenv(double, char, std::span<const double>, double, std::span<double>) const {
    fail(" ERROR: Multiplication mult not implemented for llsparse");
}

void llsparse::multgenm(double, char, matrix_view<const double>, double, matrix_view<double>) const {
    fail(" ERROR: Multiplication mult not implemented for llsparse");
}

void llsparse::scale(double) {
    fail(" ERROR: scale not implemented for llsparse");
}

}  // namespace zendar
