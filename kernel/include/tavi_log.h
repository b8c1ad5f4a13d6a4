/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Incident records for the tavi listener: drivers report hardware and storage
 * incidents here and user space reads them from /sys/kernel/tavi/log.
 */
#ifndef _TAVI_LOG_H
#define _TAVI_LOG_H

#include <linux/types.h>

/* Device areas; the listener routes a record by this number. */
enum tavi_category {
	TAVI_CATEGORY_CAMERA = 1,
	TAVI_CATEGORY_LINUX_OS = 2,
	TAVI_CATEGORY_DISPLAY = 3,
	TAVI_CATEGORY_CHARGER = 4,
};

/*
 * tavi_report() - queue one incident record and wake the listener.
 * @category: device area, one of enum tavi_category
 * @level:    severity as the listener defines it
 * @code:     incident code within the category
 * @p1..@p4:  incident parameters
 *
 * Callable from any context except NMI: process, softirq or hard interrupt,
 * with or without locks held. @category, @level and @code must not exceed
 * S32_MAX, because the listener reads every field as a signed 32-bit number.
 *
 * Return: 0 when queued, -ERANGE for a field out of range, -ENOSPC when the
 * queue is full and the record was dropped.
 */
int tavi_report(u32 category, u32 level, u32 code,
		s32 p1, s32 p2, s32 p3, s32 p4);

#endif /* _TAVI_LOG_H */
