// Stable merge sort of singly linked lists, without memory of its own.
#pragma once

// Of equal entries those of `first` stay in front.
template <typename Entry, typename Precedes>
Entry* list_merge(Entry* first, Entry* second, Precedes precedes) {
  Entry* head = nullptr;
  Entry** tail = &head;
  while (first != nullptr && second != nullptr) {
    Entry*& smaller = precedes(*second, *first) ? second : first;
    *tail = smaller;
    tail = &smaller->next;
    smaller = smaller->next;
  }
  *tail = first != nullptr ? first : second;
  return head;
}

// Returns the new head. `precedes(a, b)`: a must stand before b.
template <typename Entry, typename Precedes>
Entry* list_sort(Entry* list, Precedes precedes) {
  // Bottom-up: bin i holds a sorted run of 2^i entries, all from before those of the lower bins.
  constexpr int bins = 32;
  Entry* runs[bins] = {};
  while (list != nullptr) {
    Entry* run = list;
    list = list->next;
    run->next = nullptr;
    int i = 0;
    for (; i < bins - 1 && runs[i] != nullptr; i++) {
      run = list_merge(runs[i], run, precedes);
      runs[i] = nullptr;
    }
    runs[i] = list_merge(runs[i], run, precedes);
  }
  Entry* sorted = nullptr;
  for (Entry* run : runs) {
    sorted = list_merge(run, sorted, precedes);
  }
  return sorted;
}
