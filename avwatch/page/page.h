// What is answered at the HTTP address, by path: the metrics, the page's files, and what the page
// asks for. It reads only.
//
// It tells of the present what `present` has, and of the past what is in the history's file, which
// it opens for the moment of an answer; and nobody who may not look (access.h). The thread that
// answers has other work: answers get a share of its time (work_share.h), and who asks for more is
// told to come again.
#pragma once

#include "avwatch/history/application_names.h"
#include "avwatch/page/access.h"
#include "avwatch/page/exchange.h"
#include "avwatch/page/work_share.h"
#include "avwatch/present/present.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace avwatch {

struct rows_query;

struct page_sources {
    const present &now;
    std::function<std::string()> trouble; // why nobody tells; empty: avcore does
    std::function<std::string()> metrics;
    std::string history_file;
    names_kept names = names_kept::full;
    bool utc = false; // days are UTC's
};

class page {
public:
    // Both have to outlive it, and it the answers that it gave.
    page(access_settings who, page_sources sources,
         work_share::clock::duration most_work = std::chrono::milliseconds(500));
    ~page();

    page_reply answer(const page_request &asked);

private:
    struct route;
    class view; // what is looked at, each second
    class live; // an answer that goes on
    struct told_bars;
    static const route *route_to(const std::string &path); // null where there is none

    page_reply found(const page_request &asked);
    page_reply worked_on(const route &chosen, const page_request &asked);
    std::shared_ptr<view> view_of(rows_query query);

    page_reply metrics(const page_request &asked);
    page_reply enter(const page_request &asked);
    page_reply rows(const page_request &asked);
    page_reply live_rows(const page_request &asked);
    page_reply course(const page_request &asked);
    page_reply flow(const page_request &asked);
    page_reply history(const page_request &asked);
    page_reply read_history(const flow_choice &chosen, bool is_by_day) const;

    page_access access_;
    const page_sources sources_;
    std::vector<std::weak_ptr<view>> views_; // that somebody looks at
    std::vector<told_bars> bars_;            // lately
    work_share work_;
};

} // namespace avwatch
