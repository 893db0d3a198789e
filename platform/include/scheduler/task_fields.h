// The fields of the task record (scheduler/task.h), one row each. The store's columns,
// its row reading and binding, listings, the fresh record's flags, the "basic" JSON
// object, orva-taskctl and the store's tests are all made from this table.
//
// X(KIND, member, basic, where, arg, getter, setter)
//   KIND    ID, MARKER (int64), UID (uint32), STATE and FLAG (uint8, 0 or 1; STATE is
//           "on"/"off" in JSON), TEXT (char array), S8 / S16 (an integer of `schedule`),
//           LIST (an interval list of `schedule`)
//   member  the record's member (`schedule`'s for S8, S16 and LIST)
//   basic   its key in the "basic" JSON object, "" when it is not there
//   where   in a listing: LISTED (read into the side entry), SLOT (kept in the slot
//           itself) or STORE (left in the store until a getter asks)
//   arg     TEXT: its ORVA_SCHED_TRUNC_ bit; STATE and FLAG: the value in a fresh
//           record; LIST: `schedule`'s member that counts it; else 0
//   getter, setter  the public accessors, "_" when there is none
// The column of a field is its member's name; UID adds "_uid", `schedule`'s members
// take "s_" before. The columns were released with the first schema migration: a new
// field needs a new migration too.
#pragma once

#include "scheduler/record.h"

// clang-format off
#define ORVA_SCHED_TASK_FIELDS(X) \
  X(ID,     id,                     "id",                     LISTED, 0,                          ORVASchedTaskGetID,                 ORVASchedCTaskSetID) \
  X(TEXT,   name,                   "task_name",              LISTED, ORVA_SCHED_TRUNC_NAME,      ORVASchedTaskGetName,               ORVASchedCTaskSetName) \
  X(UID,    owner,                  "owner",                  SLOT,   0,                          ORVASchedTaskGetOwner,              ORVASchedCTaskSetOwner) \
  X(UID,    real_owner,             "real_owner",             LISTED, 0,                          ORVASchedTaskGetRealOwner,          _) \
  X(MARKER, marker,                 "",                       SLOT,   0,                          ORVASchedTaskGetMarker,             _) \
  X(STATE,  enabled,                "enabled",                LISTED, 1,                          ORVASchedTaskIsEnabled,             ORVASchedCTaskSetState) \
  X(FLAG,   listable,               "listable",               LISTED, 1,                          ORVASchedTaskIsListable,            ORVASchedCTaskSetListable) \
  X(FLAG,   can_edit_from_ui,       "can_edit_from_ui",       LISTED, 1,                          ORVASchedTaskIsCanEditFromUI,       ORVASchedCTaskSetCanEditFromUI) \
  X(FLAG,   can_delete_from_ui,     "can_delete_from_ui",     LISTED, 1,                          ORVASchedTaskIsCanDeleteFromUI,     ORVASchedCTaskSetCanDeleteFromUI) \
  X(FLAG,   can_run_from_ui,        "can_run_from_ui",        LISTED, 1,                          ORVASchedTaskIsCanRunFromUI,        ORVASchedCTaskSetCanRunFromUI) \
  X(FLAG,   can_edit_name,          "can_edit_name",          STORE,  1,                          ORVASchedTaskIsCanEditName,         ORVASchedCTaskSetCanEditName) \
  X(FLAG,   can_edit_owner,         "can_edit_owner",         STORE,  0,                          ORVASchedTaskIsCanEditOwner,        ORVASchedCTaskSetCanEditOwner) \
  X(FLAG,   simple_edit_form,       "simple_edit_form",       STORE,  0,                          ORVASchedTaskIsSimpleEditForm,      ORVASchedCTaskSetSimpleEditForm) \
  X(FLAG,   can_run_app_same_time,  "can_run_app_same_time",  STORE,  1,                          ORVASchedTaskIsCanRunAppSameTime,   ORVASchedCTaskSetCanRunAppSameTime) \
  X(FLAG,   can_run_task_same_time, "can_run_task_same_time", STORE,  0,                          ORVASchedTaskIsCanRunTaskSameTime,  ORVASchedCTaskSetCanRunTaskSameTime) \
  X(TEXT,   app,                    "app",                    LISTED, ORVA_SCHED_TRUNC_APP,       ORVASchedTaskGetApp,                ORVASchedCTaskSetApp) \
  X(TEXT,   app_name,               "app_name",               LISTED, ORVA_SCHED_TRUNC_APP_NAME,  ORVASchedTaskGetAppName,            ORVASchedCTaskSetAppName) \
  X(TEXT,   edit_form,              "edit_form",              STORE,  ORVA_SCHED_TRUNC_EDIT_FORM, ORVASchedTaskGetEditForm,           ORVASchedCTaskSetEditForm) \
  X(TEXT,   action,                 "action",                 LISTED, ORVA_SCHED_TRUNC_ACTION,    ORVASchedTaskGetAction,             ORVASchedCTaskSetAction) \
  X(TEXT,   command,                "",                       STORE,  ORVA_SCHED_TRUNC_COMMAND,   ORVASchedTaskGetCommand,            ORVASchedCTaskSetCommand) \
  X(TEXT,   app_args,               "",                       STORE,  ORVA_SCHED_TRUNC_APP_ARGS,  ORVASchedTaskGetAppArgs,            ORVASchedCTaskSetAppArgs) \
  X(TEXT,   event,                  "",                       STORE,  ORVA_SCHED_TRUNC_EVENT,     ORVASchedTaskGetEvent,              ORVASchedCTaskSetEvent) \
  X(S8,     repeat,                 "",                       LISTED, 0,                          _,                                  _) \
  X(S16,    year,                   "",                       LISTED, 0,                          _,                                  _) \
  X(S8,     month,                  "",                       LISTED, 0,                          _,                                  _) \
  X(S8,     day,                    "",                       LISTED, 0,                          _,                                  _) \
  X(S8,     week_mask,              "",                       LISTED, 0,                          _,                                  _) \
  X(S8,     hour,                   "",                       LISTED, 0,                          _,                                  _) \
  X(S8,     min,                    "",                       LISTED, 0,                          _,                                  _) \
  X(S8,     repeat_hour,            "",                       LISTED, 0,                          _,                                  _) \
  X(S8,     repeat_min,             "",                       LISTED, 0,                          _,                                  _) \
  X(S8,     last_work_hour,         "",                       LISTED, 0,                          _,                                  _) \
  X(LIST,   repeat_min_cfg,         "",                       LISTED, n_repeat_min_cfg,           _,                                  _) \
  X(LIST,   repeat_hour_cfg,        "",                       LISTED, n_repeat_hour_cfg,          _,                                  _)
// clang-format on

// The column of a field, a string literal.
#define ORVA_SCHED_COLUMN(KIND, member) ORVA_SCHED_COLUMN_##KIND(member)
#define ORVA_SCHED_COLUMN_ID(m) #m
#define ORVA_SCHED_COLUMN_MARKER(m) #m
#define ORVA_SCHED_COLUMN_UID(m) #m "_uid"
#define ORVA_SCHED_COLUMN_STATE(m) #m
#define ORVA_SCHED_COLUMN_FLAG(m) #m
#define ORVA_SCHED_COLUMN_TEXT(m) #m
#define ORVA_SCHED_COLUMN_S8(m) "s_" #m
#define ORVA_SCHED_COLUMN_S16(m) "s_" #m
#define ORVA_SCHED_COLUMN_LIST(m) "s_" #m

// The field in a record (or anything with the record's member names) `r`, and its arg:
// for LIST the count member of `r`, else `arg` itself.
#define ORVA_SCHED_FIELD(KIND, r, member) ORVA_SCHED_FIELD_##KIND(r, member)
#define ORVA_SCHED_FIELD_ID(r, m) (r).m
#define ORVA_SCHED_FIELD_MARKER(r, m) (r).m
#define ORVA_SCHED_FIELD_UID(r, m) (r).m
#define ORVA_SCHED_FIELD_STATE(r, m) (r).m
#define ORVA_SCHED_FIELD_FLAG(r, m) (r).m
#define ORVA_SCHED_FIELD_TEXT(r, m) (r).m
#define ORVA_SCHED_FIELD_S8(r, m) (r).schedule.m
#define ORVA_SCHED_FIELD_S16(r, m) (r).schedule.m
#define ORVA_SCHED_FIELD_LIST(r, m) (r).schedule.m
#define ORVA_SCHED_FIELD_ARG(KIND, r, arg) ORVA_SCHED_FIELD_ARG_##KIND(r, arg)
#define ORVA_SCHED_FIELD_ARG_ID(r, a) a
#define ORVA_SCHED_FIELD_ARG_MARKER(r, a) a
#define ORVA_SCHED_FIELD_ARG_UID(r, a) a
#define ORVA_SCHED_FIELD_ARG_STATE(r, a) a
#define ORVA_SCHED_FIELD_ARG_FLAG(r, a) a
#define ORVA_SCHED_FIELD_ARG_TEXT(r, a) a
#define ORVA_SCHED_FIELD_ARG_S8(r, a) a
#define ORVA_SCHED_FIELD_ARG_S16(r, a) a
#define ORVA_SCHED_FIELD_ARG_LIST(r, a) (r).schedule.a
