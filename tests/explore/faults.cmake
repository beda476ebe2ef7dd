# Planted faults: a change of one line of a source, and the scenarios that must report it. Each makes an explorer of its
# own. A line that is not there exactly once stops CMake.
#
# explore_fault(NAME SCENARIOS PATH LINE REPLACEMENT [SOURCES ...])
#   PATH     for a header, SOURCES are the sources that are compiled with it; for a source it is that one.
#   LINE     with the line before or after it, if it is there more than once.

# ---- Growth ---------------------------------------------------------------------------------------------------------
set(path utils/dynarr/src/dynamic_array.cpp)
explore_fault(lost_table_is_kept ids_without_root ${path}
  "  free(fresh);\n  return false;"
  "  return false;")
explore_fault(block_is_counted_by_both "two_lookups_of_new_ids;ids_without_root" ${path}
  "  if (published) {"
  "  if (published || addr != nullptr) {")
explore_fault(entry_is_stored_without_swap "ids_at_table_end;two_lookups_of_new_ids" ${path}
  "if (cas64(static_cast<uint64_t *>(entry), 0, reinterpret_cast<uint64_t>(fresh)) != 0) return true;"
  "if (__atomic_store_n(static_cast<void **>(entry), fresh, __ATOMIC_RELEASE); true) return true;")
explore_fault(entry_is_loaded_relaxed "lookup_beside_new_id;ids_without_root" ${path}
  "return __atomic_load_n(entry, __ATOMIC_ACQUIRE);"
  "return __atomic_load_n(entry, __ATOMIC_RELAXED);")
explore_fault(id_without_atomic_addition "ids_without_root;ids_at_table_end" utils/dynarr/src/dynarr_lookup.h
  "const uint32_t id = add32(hdr, &DynArrHdr_t::n_used, 1);"
  "const uint32_t id = get32(hdr, &DynArrHdr_t::n_used); set32(hdr, &DynArrHdr_t::n_used, id + 1);"
  SOURCES utils/dynarr/src/dynamic_array.cpp)

# ---- Slots ----------------------------------------------------------------------------------------------------------
set(path utils/dynarr/src/tslb_dynarr_alloc.cpp)
explore_fault(take_without_lock "take_and_free;reuse_beside_inactivation" ${path}
  "  if (lock_use == TAKES_LOCK) lock_array(array);"
  "")
explore_fault(old_record_without_lock last_value_beside_free ${path}
  "    lock_array(handle_dynarr);\n    const bool may_reuse"
  "    const bool may_reuse")
explore_fault(range_without_lock "range_is_in_one_piece;range_beside_reuse" ${path}
  "  lock_array(handle_dynarr);\n  for (uint32_t i = 0; i < num_entries"
  "  for (uint32_t i = 0; i < num_entries")
explore_fault(reuse_unlocks_early reuse_beside_inactivation ${path}
  "  *head_ts = get32(list.bw(slot_ptr), &node_bw::ts);"
  "  unlock_array(list.array); *head_ts = get32(list.bw(slot_ptr), &node_bw::ts);")
set(path utils/dynarr/src/tslb_dynarr_lists.cpp)
explore_fault(status_is_not_tested_again one_index ${path}
  "  if ((*status = status_of(slot_ptr)) == wanted) return true;"
  "  return true;")
explore_fault(readiness_without_lock one_index ${path}
  "  lock_array(handle_dynarr);\n  if (status_of(slot_ptr) == TSLB_DA_SLOT_NOT_READY)"
  "  if (status_of(slot_ptr) == TSLB_DA_SLOT_NOT_READY)")
explore_fault(free_without_lock "one_index;free_take_free;take_inactivate_free" ${path}
  "  lock_array(handle_dynarr);\n  const int refused"
  "  const int refused")
explore_fault(removal_unlocks_early "one_index;redo_activate_neighbours" ${path}
  "  node_fw *const fw = fw_of(slot_ptr);\n"
  "  unlock_array(list.array); node_fw *const fw = fw_of(slot_ptr);\n")
explore_fault(append_unlocks_early redo_inactivate ${path}
  "  if (tail != TSLB_DA_NIL_IDX) lists_relink_next(list, tail, idx);\n"
  "  unlock_array(list.array); if (tail != TSLB_DA_NIL_IDX) lists_relink_next(list, tail, idx);\n")
explore_fault(head_is_read_twice inactive_head_beside_activation ${path}
  "  return tslb_da_get_ptr(handle_dynarr, *head_idx);"
  "  return tslb_da_get_ptr(handle_dynarr, get32(lli_of(handle_dynarr), &DynArrLLI_t::inact_head));")
explore_fault(status_is_loaded_relaxed make_ready_beside_neighbours utils/dynarr/src/dynarr_layout.h
  "return __atomic_load_n(shared_word(fw_of(slot_ptr), &node_fw::status), __ATOMIC_ACQUIRE);"
  "return __atomic_load_n(shared_word(fw_of(slot_ptr), &node_fw::status), __ATOMIC_RELAXED);"
  SOURCES utils/dynarr/src/tslb_dynarr_lists.cpp)

# ---- Chunks ---------------------------------------------------------------------------------------------------------
set(path utils/dynmem/src/tslb_dynmem_chunk.cpp)
explore_fault(reservation_without_swap "first_chunks;slot_end_4;smaller_chunk_fits" ${path}
  "  return cas64(&hdr->cur_slot_addr, *seen, *seen + tslb_stored_cursor(0, len)) != 0 ? CLAIM_WON : CLAIM_RACED;"
  "  return __atomic_store_n(&hdr->cur_slot_addr, *seen + tslb_stored_cursor(0, len), __ATOMIC_RELEASE), CLAIM_WON;")
explore_fault(change_of_slot_without_lock "slot_end_3;first_chunks;slot_end_4" ${path}
  "  lock_array(dynmem_handle);\n  // The caller's view"
  "  // The caller's view")
explore_fault(old_view_of_the_cursor "first_chunks;slot_end_3;reused_slot_at_the_end" ${path}
  "  const bool is_stale = tslb_stored_cursor_slot(seen) != cslot_idx || !is_full(dynmem_hdr, seen, chunk_sz, last_slot);"
  "  const bool is_stale = false;")
explore_fault(room_is_not_tested_again slot_current_again ${path}
  "  const bool is_stale = tslb_stored_cursor_slot(seen) != cslot_idx || !is_full(dynmem_hdr, seen, chunk_sz, last_slot);"
  "  const bool is_stale = tslb_stored_cursor_slot(seen) != cslot_idx;")
explore_fault(cursor_moves_by_store "late_reservation;late_wide_reservation" ${path}
  "  while (cas64(&dynmem_hdr->cur_slot_addr, seen, moved) == 0) seen = get64(dynmem_hdr, &DynMemHdr_t::cur_slot_addr);"
  "  __atomic_store_n(&dynmem_hdr->cur_slot_addr, moved, __ATOMIC_RELEASE);")
explore_fault(counters_after_the_cursor "first_chunks;slot_end_3;ring_completion" ${path}
  "  TSLB_PROBE_POOL_SLOT(dynmem_handle, *new_mslot_idx_ref, cslot_idx, tslb_stored_cursor_off(seen));"
  "  set32(slot, &MemSlot_t::bytes_used, 0);")
explore_fault(limit_is_tested_without_lock limit ${path}
  "  lock_array(pool);\n  const bool is_left"
  "  const bool is_left")
explore_fault(sum_without_atomic_addition totals ${path}
  "  get_and_inc64(&hdr->total_mused, len);"
  "  hdr->total_mused += len;")
explore_fault(ring_steps_twice "ring_wrap;ring_completion;ring_mixed" ${path}
  "    if (!is_stale) step_ring(dynmem_handle, dynmem_hdr, seen);"
  "    step_ring(dynmem_handle, dynmem_hdr, seen);")
explore_fault(complete_ring_takes_new_slots ring_completion ${path}
  "  if (is_stale || Address::steps_ring(dynmem_handle)) {"
  "  if (is_stale) {")
explore_fault(slot_is_looked_up_before_its_memory resolve_beside_take utils/dynarr/src/dynarr_lookup.h
  "  return id < get32(hdr, &DynArrHdr_t::n_used) ? lookup_issued(array, hdr, id, daflag, byte_off) : nullptr;"
  "  return id + 1 < get32(hdr, &DynArrHdr_t::n_used) ? lookup_issued(array, hdr, id, daflag, byte_off) : nullptr;"
  SOURCES utils/dynmem/src/tslb_dynmem_address.cpp)

# ---- Deletion -------------------------------------------------------------------------------------------------------
explore_fault(no_note "late_reservation;late_wide_reservation;two_late_reservations" ${path}
  "  if (cslot_idx != TSLB_DA_NIL_IDX) note_if_unsettled(dynmem_handle, {cslot_idx, tslb_stored_cursor_off(seen)});"
  "")
set(path utils/dynmem/src/tslb_dynmem_release.cpp)
explore_fault(notes_are_not_asked "late_reservation;late_wide_reservation" ${path}
  "  return !has_notes(pool) || !is_noted(pool, slot_idx);"
  "  return !has_notes(pool) || slot_idx != TSLB_DA_NIL_IDX;")
explore_fault(settled_slot_is_noted delete_beside_change_of_slot ${path}
  "  return get32(slot, &MemSlot_t::bytes_used) >= bytes_reserved;"
  "  return get32(slot, &MemSlot_t::bytes_used) > bytes_reserved;")
explore_fault(no_wait_without_memory no_memory_for_a_note ${path}
  "    while (!has_settled(slot, end.byte_off)) {\n    }"
  "")
explore_fault(emptiness_is_not_tested_again release_after_second_use ${path}
  "is_settled(pool, slot_idx) && looks_empty(slot);"
  "is_settled(pool, slot_idx);")
explore_fault(counter_is_read_before_the_note late_wide_reservation ${path}
  "is_settled(pool, slot_idx) && looks_empty(slot);"
  "looks_empty(slot) && is_settled(pool, slot_idx);")
explore_fault(current_slot_is_released "delete_3;take_and_delete_3" ${path}
  "  return tslb_stored_cursor_slot(get64(pool_hdr_of(pool), &DynMemHdr_t::cur_slot_addr)) == slot_idx;"
  "  return slot_idx == TSLB_DA_NIL_IDX && is_ring(pool);")
explore_fault(cursor_is_not_tested_again "release_after_second_use;delete_sweep_reuse" ${path}
  "      !is_complete_ring(pool) && !is_current(pool, slot_idx) &&"
  "      !is_complete_ring(pool) &&")
explore_fault(slot_of_a_ring_is_released ring_with_lists_wraps ${path}
  "      !is_complete_ring(pool) && !is_current(pool, slot_idx) &&"
  "      !is_current(pool, slot_idx) &&")
explore_fault(deletion_without_atomic_addition "delete_3;two_owners_delete" ${path}
  "  add32(slot, &MemSlot_t::bytes_del, mchunk_len + TSLB_COMPAT_BYTES);"
  "  set32(slot, &MemSlot_t::bytes_del, get32(slot, &MemSlot_t::bytes_del) + mchunk_len + TSLB_COMPAT_BYTES);")
explore_fault(mark_after_the_count two_owners_delete ${path}
  "  add32(slot, &MemSlot_t::bytes_del, mchunk_len + TSLB_COMPAT_BYTES);"
  "  add32(slot, &MemSlot_t::bytes_del, mchunk_len + TSLB_COMPAT_BYTES); compat->flag = MCHUNK_FLAG_DELETED;")
explore_fault(counters_are_read_once sweep_beside_second_use ${path}
  "  for (bool agrees = false; !agrees;) {"
  "  for (bool agrees = false; !agrees; agrees = true) {")
explore_fault(gatekeeper_word_is_counted sweep_beside_take ${path}
  "  if (counts.bytes_used == TSLB_GATEKEEPER_WORD) return;"
  "")
explore_fault(release_without_lock "two_sweeps;sweeps_delete_take" ${path}
  "  lock_array(pool);\n"
  "")

# ---- Redo records ---------------------------------------------------------------------------------------------------
explore_fault(tail_is_not_logged redo_two_frees utils/dynarr/src/dynarr_lists.h
  "    log_forward_node(list.array, tail);"
  ""
  SOURCES utils/dynarr/src/tslb_dynarr_lists.cpp)
explore_fault(neighbour_is_not_logged "redo_inactivate;redo_activate_neighbours;redo_neighbours_mixed"
  utils/dynarr/src/dynarr_lists.h
  "  if (slot_ptr != nullptr) set32(fw_of(slot_ptr), &node_fw::next, next);\n  log_slot(list.array, idx);"
  "  if (slot_ptr != nullptr) set32(fw_of(slot_ptr), &node_fw::next, next);"
  SOURCES utils/dynarr/src/tslb_dynarr_lists.cpp)
explore_fault(taken_slot_is_not_logged "redo_two_takes;redo_pool;redo_3" utils/dynarr/src/tslb_dynarr_alloc.cpp
  "      redo_nodes(array, taken.idx, taken.slot_ptr);"
  "")
# The header that a host logs at the end: growth records alone miss a slot.
explore_fault(header_is_not_logged growth_records utils/dynarr/src/tslb_dynarr_redo.cpp
  "  if (redo_is_on(h_dynarr)) redo_header(h_dynarr, txn_id, rec_type);"
  "  static_cast<void>(h_dynarr), static_cast<void>(txn_id), static_cast<void>(rec_type);")

# ---- Readers without a lock -----------------------------------------------------------------------------------------
set(path metricdb/store/optimistic.h)
explore_fault(version_is_not_compared readers_of_a_version ${path}
  "    return !is_changing(seen) && value_.load(std::memory_order_relaxed) == seen;"
  "    return !is_changing(seen);"
  SOURCES tests/explore/reader_scenarios.cpp)
explore_fault(odd_version_is_accepted readers_of_a_version ${path}
  "    return !is_changing(seen) && value_.load(std::memory_order_relaxed) == seen;"
  "    return value_.load(std::memory_order_relaxed) == seen;"
  SOURCES tests/explore/reader_scenarios.cpp)

# ---- Groups of the durable store ------------------------------------------------------------------------------------
if(TSLB_BUILD_DURABLE)
  set(path durable/gate.h)
  set(from SOURCES tests/explore/durable_scenarios.cpp durable/chunk_room.cpp)
  explore_fault(closed_gate_lets_in "gate_closes;tickets;tickets_3" ${path}
    "[this] { return n_closings_ == 0 && n_inside_ < MAX_INSIDE; }"
    "[this] { return n_inside_ < MAX_INSIDE; }"
    ${from})
  explore_fault(close_does_not_wait gate_closes ${path}
    "    emptied_.wait(lock, [this] { return n_inside_ == 0; });"
    ""
    ${from})
  explore_fault(full_gate_wakes_nobody gate_is_full ${path}
    "    if (n_inside_-- == MAX_INSIDE) opened_.notify_all();"
    "    --n_inside_;"
    ${from})
  explore_fault(last_batch_wakes_nobody "gate_closes;gate_is_full_and_closes" ${path}
    "    if (n_closings_ != 0 && n_inside_ == 0) emptied_.notify_all();"
    ""
    ${from})
  set(path durable/waiters.h)
  explore_fault(written_group_wakes_nobody "tickets;tickets_3" ${path}
    "      written_.notify_all();"
    ""
    ${from})
  explore_fault(waiters_flag_is_kept "tickets;tickets_3" ${path}
    "      is_writing_ = false;"
    ""
    ${from})
  explore_fault(waiter_wants_no_turn "tickets;tickets_3" ${path}
    "[&] { return settled >= ticket || !is_writing_; }"
    "[&] { return settled >= ticket; }"
    ${from})
  explore_fault(limit_without_lock last_slot_of_a_limit durable/chunk_room.cpp
    "  const std::lock_guard lock(mutex_);\n  while"
    "  while")
endif()
