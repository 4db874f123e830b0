#ifndef SAGLEME_JOBS_H
#define SAGLEME_JOBS_H

/*
 * Long work for programs in C: vacuum, index builds, imports, changes of schemas and of objects'
 * tables, as jobs that can be listed, stopped, resumed and abandoned. <sagleme/jobs.hpp> says what
 * a job is.
 *
 *   sagleme_job_control* control = sagleme_job_control_new();    // another thread may stop it
 *   sagleme_job_options options = {sizeof options};
 *   options.control = control;
 *   status = sagleme_vacuum("shop.db", &options);
 *   if (status == LSCOREDB_STOPPED) ...                          // resume it later
 *
 * Rules
 *
 *  1. `place` is the directory or URL of a database. A function opens it beside the openings that
 *     the process has, and closes it again, so that it works in a context of its own, beside
 *     whatever transaction the caller has open, and the handle may be closed meanwhile. Databases
 *     in memory have no jobs of this header.
 *  2. Each function returns 0 for success, else a status of the layer or of the kernel, whose text
 *     sagleme_error(0, status) gives. LSCOREDB_STOPPED: the control, the report, or another process
 *     ended the job, which can be resumed. LSCOREDB_INVALID_ARGUMENT: also a file or a document
 *     that is wrong.
 *  3. Texts are UTF-8. `options` may be NULL.
 */

#include <sagleme/host.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SAGLEME_JOB_VACUUM 1u
#define SAGLEME_JOB_INDEX_BUILD 2u
#define SAGLEME_JOB_IMPORT 3u
#define SAGLEME_JOB_APPLY 4u
#define SAGLEME_JOB_RETYPE 5u
#define SAGLEME_JOB_COLUMN_CHANGE 6u
#define SAGLEME_JOB_BASE_CHANGE 7u

#define SAGLEME_JOB_RUNNING 1u
#define SAGLEME_JOB_ELSEWHERE 2u /* on another machine or in another container; may have ended */
#define SAGLEME_JOB_CUT_OFF 3u

/* Stops or slows jobs from any thread. */
typedef struct sagleme_job_control sagleme_job_control;
/* NULL if there is no memory. */
SAGLEME_HOST_API sagleme_job_control* sagleme_job_control_new(void);
/* NULL is allowed. No job may use it any more. */
SAGLEME_HOST_API void sagleme_job_control_free(sagleme_job_control* control);
/* Its jobs end after the batch that they are in. */
SAGLEME_HOST_API void sagleme_job_control_stop(sagleme_job_control* control);
/* Its jobs wait so many milliseconds more between two batches. */
SAGLEME_HOST_API void sagleme_job_control_pause(sagleme_job_control* control,
                                                uint64_t milliseconds);

/* Receives the progress after each batch; `total` is 0 if it is unknown, `rate` is per second. A
 * result other than 0 stops the job. Must not throw. */
typedef uint32_t (*sagleme_job_report)(void* user, uint64_t done, uint64_t total, uint64_t rate);

/* Set `size` to sizeof(sagleme_job_options) and the rest to 0 for the defaults. */
typedef struct sagleme_job_options {
  size_t size;
  uint64_t batch;        /* objects or rows in a transaction; 0: the default, or as before */
  uint64_t pause;        /* milliseconds between transactions; 0: none, or as before */
  uint32_t take_over;    /* 1: resumes a job that is ELSEWHERE, and whose process has ended */
  uint32_t allow_losses; /* 1: a schema may lose values and objects, a resumed job values */
  sagleme_job_control* control; /* may be NULL */
  sagleme_job_report report;    /* may be NULL */
  void* user;                   /* for `report` */
} sagleme_job_options;

/* ---- work ------------------------------------------------------------------------------------ */

/* <sagleme/vacuum.hpp> */
SAGLEME_HOST_API uint32_t sagleme_vacuum(char const* place, sagleme_job_options const* options);
/* Builds an index over `count` columns of a table, beside writers; `unique` is 0 or 1.
 * <sagleme/index_build.hpp> */
SAGLEME_HOST_API uint32_t sagleme_build_index(char const* place, char const* name,
                                              char const* table, char const* const* columns,
                                              uint32_t count, uint32_t unique,
                                              sagleme_job_options const* options);
/* Imports a file of CSV, or of JSON Lines if its name ends in ".jsonl" or ".jsonl.gz". Goes on with
 * an import of the unchanged file that was cut off. `rows`, which may be NULL, gets the number of
 * rows that are committed, also after a failure. <sagleme/host/import.hpp> */
SAGLEME_HOST_API uint32_t sagleme_import(char const* place, char const* table, char const* file,
                                         sagleme_job_options const* options, uint64_t* rows);
/* Makes objects those of another table. <sagleme/hierarchy.hpp> */
SAGLEME_HOST_API uint32_t sagleme_retype(char const* place, uint64_t const* objects, uint64_t count,
                                         char const* table, sagleme_job_options const* options);
/* Changes the schema to that of a document. <sagleme/schema_job.hpp> */
SAGLEME_HOST_API uint32_t sagleme_apply_schema(char const* place, char const* document,
                                               sagleme_job_options const* options);

/* ---- jobs ------------------------------------------------------------------------------------ */

typedef struct sagleme_job {
  size_t size; /* of this record, which may grow */
  uint64_t id;
  uint32_t kind;  /* SAGLEME_JOB_VACUUM and following */
  uint32_t state; /* SAGLEME_JOB_RUNNING and following */
  uint64_t done;
  uint64_t total; /* 0: unknown */
  uint64_t rate;  /* per second */
  uint64_t batch;
  uint64_t pause; /* milliseconds */
  char const* kind_name;
  char const* state_name;
  char const* description;
  char const* step;   /* of an index build */
  char const* runner; /* "process 4711" */
  char const* reason; /* why it was cut off; empty if nobody could say so */
} sagleme_job;

/* Receives a job, which is valid during the call. A result other than 0 ends the list. */
typedef uint32_t (*sagleme_job_callback)(void* user, sagleme_job const* job);

/* Lists all jobs, oldest first. */
SAGLEME_HOST_API uint32_t sagleme_jobs(char const* place, sagleme_job_callback visit, void* user);
/* Goes on with a job. LORV_STATUS_NO_OBJECT: there is none. LSCOREDB_IN_USE: somebody works on it,
 * or may. */
SAGLEME_HOST_API uint32_t sagleme_resume_job(char const* place, uint64_t id,
                                             sagleme_job_options const* options);
/* Makes whoever works on a job stop. LORV_STATUS_NO_OBJECT. */
SAGLEME_HOST_API uint32_t sagleme_stop_job(char const* place, uint64_t id);
/* Stops a job and forgets it. What it committed stays. LORV_STATUS_NO_OBJECT. */
SAGLEME_HOST_API uint32_t sagleme_abandon_job(char const* place, uint64_t id);

/* ---- work that is no job ------------------------------------------------------------------- */

/* A check and a load have nothing to resume, so they are not listed. They heed the control and the
 * report of their options, and neither batch nor pause. What is stopped returns LSCOREDB_STOPPED.
 */

typedef struct sagleme_finding {
  size_t size; /* of this record, which may grow */
  char const* rule;
  char const* table; /* empty: the whole database, or unknown */
  uint64_t object;   /* 0: of the table */
  char const* what;  /* an English sentence */
} sagleme_finding;

/* Receives a finding, which is valid during the call. A result other than 0 stops the check. Must
 * not throw. */
typedef uint32_t (*sagleme_finding_callback)(void* user, sagleme_finding const* finding);

/* Checks what is committed; `references` is 1 to look also for those that lead nowhere.
 * <sagleme/check.hpp> */
SAGLEME_HOST_API uint32_t sagleme_check(char const* place, uint32_t references,
                                        sagleme_finding_callback visit, void* user,
                                        sagleme_job_options const* options);
/* Makes a new database of a dump. `objects`, which may be NULL, gets their number. A load that
 * fails or is stopped leaves nothing behind. <sagleme/host/dump.hpp> */
SAGLEME_HOST_API uint32_t sagleme_load(char const* place, char const* file,
                                       sagleme_job_options const* options, uint64_t* objects);

#ifdef __cplusplus
}
#endif

#endif
