/* The agent's result codes, shared by the module, the bus and the tools that
 * print them. The one place their values are written. */
#ifndef KEM_RESULT_H
#define KEM_RESULT_H

#define KEM_E_FAIL 0x84ce0001u        /* failed or refused */
#define KEM_E_INVALIDARG 0x84ce0002u  /* invalid parameter */
#define KEM_E_QUEUE_FULL 0x84ce0003u  /* the bus queue is full */
#define KEM_E_NOINTERFACE 0x84ce0012u /* no such interface on a plug-in */

#endif
